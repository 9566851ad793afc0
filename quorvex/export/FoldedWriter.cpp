#include "quorvex/export/FoldedWriter.h"

#include "quorvex/format/Characters.h"
#include "quorvex/format/Digits.h"

#include <tuple>
#include <utility>

namespace Quorvex {

namespace {

constexpr std::size_t kTextSize = 0x10000; ///< that is written at once

} // namespace

std::string FoldedStacks::textOf(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const Character character = firstCharacter(name);
        for (unsigned i = 0; i < character.size; ++i) {
            char digits[2];
            if (character.printable)
                text += name[i] == ';' ? ':' : name[i];
            else
                text.append("\\x").append(digits, putHex<2>(digits, static_cast<unsigned char>(name[i])));
        }
        name.remove_prefix(character.size);
    }
    return text;
}

CFoldedWriter::~CFoldedWriter() = default;

bool CFoldedWriter::show(const CPacket& packet, std::uint64_t time) {
    const KindFacts& facts = factsOf(packet.TraceCode());
    const bool isCall = facts.step != Step::None && facts.entered == TextSort::Function;
    if (!isCall && packet.TraceCode() != Timestamp && facts.role != Role::Definition)
        return false;
    if (!m_trace || m_trace->first != process())
        m_trace = &*m_traces.try_emplace(process(), m_tree, m_names, process()).first;
    m_trace->second.add(packet, time);
    return isCall;
}

void CFoldedWriter::end(std::uint64_t) {
    for (auto& [number, trace] : m_traces)
        trace.finish();
    for (std::uint64_t count = m_tree.hiddenCalls(); count > 0; --count)
        lose("calls too deep to be told apart");
    for (std::uint64_t count = m_tree.strayLeaves(); count > 0; --count)
        lose("leaves of what had not been entered");
}

bool CFoldedWriter::writeFile() {
    bool isWritten = true;
    std::string text;
    FoldedStacks::write(
        m_tree.paths(), [this](const CallPath& path) { return FoldedStacks::nameOf(path, m_names); },
        [](const CallPath&) { return std::string(); },
        [&](std::string_view line) {
            text += line;
            if (text.size() < kTextSize)
                return;
            isWritten = isWritten && writeOut(text);
            text.clear();
        });
    return isWritten && writeOut(text);
}

} // namespace Quorvex
