#pragma once

#include "../Symbols.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

/// What traces tell of where programs and libraries stood in memory, so that functions get names which are told by
/// addresses alone.
class CodeModules {
public:
    /// A file of code stood in a process at that address.
    struct Module {
        std::uint64_t from = 0, size = 0;
        std::uint64_t bias = 0; ///< how far addresses in the file have been moved
        std::string path;
        std::string buildId; ///< its bytes; empty where it is not told
    };
    void add(std::int64_t process, Module module);
    void setBuildId(std::int64_t process, std::uint64_t from, std::string buildId);

    /// The name of a function; its address where no module is known there. Of a file that cannot be read here, or is
    /// not the same any more, the name of the file and the address in it.
    std::string nameOf(std::int64_t process, std::uint64_t address);

private:
    std::map<std::int64_t, std::vector<Module>> m_modules;                             ///< by process
    std::map<std::pair<std::string, std::string>, std::unique_ptr<Symbols>> m_symbols; ///< by path and build id
};

} // namespace qvx
