#pragma once

#include <string>
#include <vector>

namespace qvx {

class Option;
class Verb;

/// The traces that a verb reads: files, directories, whose files named *.qvx are meant, and "-" for standard input.
class Inputs {
public:
    Option addTo(Verb& verb, const char* help = "Traces, or directories of *.qvx; - for standard input",
                 bool isRequired = true);

    /// Whether none was named, where the option is not required.
    bool empty() const { return m_given.empty(); }
    /// All of them by name, those of a directory in the order of their names, where digits count as numbers. Throws
    /// Failure where a directory has none, or cannot be read, and Misuse where standard input is given twice.
    std::vector<std::string> files() const { return filesOf(m_given); }
    /// The same of what is given in another way.
    static std::vector<std::string> filesOf(const std::vector<std::string>& given);
    /// The names as they were given.
    const std::vector<std::string>& given() const { return m_given; }

private:
    std::vector<std::string> m_given;
};

} // namespace qvx
