#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// What a file of code tells of addresses in it: functions, sources and lines, out of its symbols and its DWARF, which
/// may stand in files of their own. Addresses are those of the file: of a library in memory, what it was moved by is
/// taken off them. Used by one thread at a time; as the libraries that read such files, all objects of this class
/// together.
class Symbols {
public:
    /// A function. Its name is qualified and demangled, without what tells copies and parts of it apart that a compiler
    /// has made; where nothing tells a name, it is that of the file and the address.
    struct Function {
        std::string name;
        std::string file;     ///< the source that defines it, as an absolute path; empty: not known
        unsigned line = 0;    ///< where in it; 0: not known
        bool isNamed = false; ///< whether it has a name of its own
    };
    /// One of the functions that an address is in, and the line in it.
    struct Frame {
        std::string name; ///< as that of a Function
        std::string file; ///< as above
        unsigned line = 0;
        bool operator==(const Frame&) const = default;
    };

    /// Looks at the file of that path; one that does not begin with a slash is the kernel's own (vdso). It counts only
    /// if it has that build id, given as its bytes; if none is given, whatever it has. Debug files are looked for
    /// beside it, in ".debug" there, and below that directory, where also the file may be found by its build id.
    explicit Symbols(const std::string& path, std::string_view buildId = {},
                     const std::string& debugDirectory = "/usr/lib/debug");
    Symbols(const Symbols&) = delete;
    Symbols& operator=(const Symbols&) = delete;
    ~Symbols();

    /// The function at an address, that of its beginning or one in it. The result holds as long as this.
    const Function& function(std::uint64_t address);
    /// The functions at an address: first the innermost of those that have been inlined there, last the one that has
    /// been compiled. Of a return address, the one before it tells the call.
    std::vector<Frame> frames(std::uint64_t address);

    /// Why it tells nothing; empty where it may tell something.
    const std::string& problem() const;

private:
    class Code;

    std::unique_ptr<Code> m_code;
};

} // namespace qvx
