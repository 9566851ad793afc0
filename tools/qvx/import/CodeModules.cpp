#include "CodeModules.h"

#include <fmt/format.h>

#include <algorithm>

namespace qvx {

void CodeModules::add(std::int64_t process, Module module) {
    m_modules[process].push_back(std::move(module));
}

void CodeModules::setBuildId(std::int64_t process, std::uint64_t from, std::string buildId) {
    std::vector<Module>& modules = m_modules[process];
    const auto its = std::ranges::find(modules.rbegin(), modules.rend(), from, &Module::from);
    if (its != modules.rend())
        its->buildId = std::move(buildId);
}

std::string CodeModules::nameOf(std::int64_t process, std::uint64_t address) {
    const std::vector<Module>& modules = m_modules[process];
    const auto module = std::ranges::find_if(
        modules, [address](const Module& its) { return address >= its.from && address - its.from < its.size; });
    if (module == modules.end())
        return fmt::format("{:#x}", address);
    std::unique_ptr<Symbols>& symbols = m_symbols[{module->path, module->buildId}];
    if (!symbols)
        symbols = std::make_unique<Symbols>(module->path, module->buildId);
    return symbols->function(address - module->bias).name;
}

} // namespace qvx
