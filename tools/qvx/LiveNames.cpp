#include "LiveNames.h"

#include "Symbols.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceFile.h"

#include <algorithm>

namespace qvx {

using namespace Quorvex;

LiveNames::LiveNames() = default;

LiveNames::~LiveNames() = default;

void LiveNames::read(const std::vector<std::string>& files) {
    for (const std::string& file : files) {
        TraceFile trace(file);
        while (trace.advance() && trace.cursor().TraceCode() != FunctionEnter) {
            const RecordedFact fact(trace.cursor().TraceCode() == Message ? trace.cursor().text() : "");
            if (fact.word() != "module")
                continue;
            Module module{fact.number("from"), fact.number("to"), fact.number("bias"), fact.text("path"),
                          fact.bytes("build")};
            if (std::ranges::find(m_modules, module) == m_modules.end())
                m_modules.push_back(std::move(module));
        }
    }
}

std::string LiveNames::nameOf(std::uint64_t id) {
    constexpr std::uint64_t kHalf = std::uint64_t{1} << 32;
    for (const Module& module : m_modules) {
        // The first address in it that has this lower half.
        const std::uint64_t address = module.from + (id - module.from) % kHalf;
        if (address >= module.to)
            continue;
        std::unique_ptr<Symbols>& symbols = m_symbols[{module.path, module.buildId}];
        if (!symbols)
            symbols = std::make_unique<Symbols>(module.path, module.buildId);
        return symbols->function(address - module.bias).name;
    }
    return {};
}

} // namespace qvx
