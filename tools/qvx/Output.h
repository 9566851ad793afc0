#pragma once

#include <fstream>
#include <ostream>
#include <string>

namespace CLI {
class App;
}

namespace qvx {

/// Where a verb's data goes: standard output, or a file that appears under its name only when it is whole.
class Output {
public:
    /// Adds -o and -f to a verb.
    void addOptions(CLI::App& verb, bool required = false);

    /// Opens the target; throws Failure when that cannot be done.
    std::ostream& open();
    /// Whether the target has a name, or is standard output.
    bool isNamed() const { return m_path != "-"; }
    const std::string& name() const { return m_path; }
    bool force() const { return m_force; }
    /// Whether it is a file that is open.
    bool isFile() const { return !m_temporary.empty(); }
    /// To be called right behind a write that may have failed: throws Failure with the system's reason if it has.
    void check() const;
    /// Puts the file in place; throws Failure when not all could be written.
    void commit();
    ~Output();

private:
    std::string m_path = "-";
    std::string m_temporary;
    bool m_force = false;
    std::ofstream m_file;
};

} // namespace qvx
