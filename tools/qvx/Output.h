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
    void addOptions(CLI::App& verb);

    /// Opens the target; throws Failure when that cannot be done.
    std::ostream& open();
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
