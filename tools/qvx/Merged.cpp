#include "Merged.h"

#include "Unpaged.h"
#include "quorvex/export/ViewerWriter.h"
#include "quorvex/stream/TraceDecompressor.h"

#include <functional>

namespace qvx {

using namespace Quorvex;

struct Merged::Source {
    explicit Source(const std::string& file) : input(file), unpaged(input), decompressor(unpaged, true, true) {}

    TraceInput input;
    Unpaged unpaged;
    CTraceDecompressor decompressor;
    PacketPointer ahead;
    std::uint64_t tick = 0;
};

Merged::Merged(const std::vector<std::string>& files) {
    for (const std::string& file : files) {
        m_sources.push_back(std::make_unique<Source>(file));
        advance(m_sources.size() - 1);
    }
}

Merged::~Merged() = default;

void Merged::advance(std::size_t index) {
    Source& source = *m_sources[index];
    tagTCode code = Invalid;
    do {
        source.ahead.reset(source.decompressor.get());
        if (!source.ahead)
            return;
        code = source.ahead->TraceCode();
    } while (code == TraceEnabled || code == TraceDisabled || code == EndOfTrace);
    const std::uint64_t tick = CViewerWriter::tickOf(*source.ahead);
    if (tick != kUnknown64)
        source.tick = tick;
    m_turns.emplace(source.tick, index);
}

PacketPointer Merged::next() {
    if (m_turns.empty())
        return nullptr;
    const std::size_t index = m_turns.top().second;
    m_turns.pop();
    PacketPointer packet = std::move(m_sources[index]->ahead);
    advance(index);
    return packet;
}

ExitCode Merged::reportDamage() const {
    ExitCode exitCode = Done;
    for (const auto& source : m_sources) {
        if (const ExitCode damage = source->input.reportDamage(); damage != Done)
            exitCode = damage;
    }
    return exitCode;
}

} // namespace qvx
