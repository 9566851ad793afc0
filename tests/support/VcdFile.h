#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace Quorvex::test {

/// A value change dump as a reader sees it that knows nothing of who wrote it.
struct VcdFile {
    struct Variable {
        std::string type;
        unsigned width = 0;
        /// The value at the end of each time at which there was a change: bits at full width, or "r" and a number.
        std::map<std::uint64_t, std::string> changes;
    };

    std::string timescale;                     ///< without blanks
    std::map<std::string, Variable> variables; ///< by scopes and name, with dots between
    std::uint64_t end = 0;

    /// Throws std::runtime_error with the reason and the place for what is no dump.
    explicit VcdFile(const std::string& text);
    /// The changes that change something, which is what other programs keep.
    void dropRepeated();
};

} // namespace Quorvex::test
