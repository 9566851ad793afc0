#include "Merged.h"

#include "Unpaged.h"
#include "quorvex/export/ViewerWriter.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/TraceDecompressor.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <functional>

namespace qvx {

using namespace Quorvex;

namespace {

/// So many packets behind a tick tell whether it can be,
constexpr unsigned kWitnesses = 8;
/// unless more than so many were relative to it.
constexpr std::size_t kMostRelative = 4096;
/// A jump is far when the packets behind it would have room in it so many times.
constexpr std::uint64_t kFar = 4;

/// Makes the packet one without a time.
void forgetTick(CPacket& packet) {
    const auto forgetIn = [](auto* part) {
        if (part)
            const_cast<std::remove_const_t<std::remove_pointer_t<decltype(part)>>*>(part)->Tick(kUnknown64);
    };
    forgetIn(contextOf<CCoreContext>(packet));
    forgetIn(contextOf<CBusContext>(packet));
    forgetIn(contextOf<CSystemContext>(packet));
    forgetIn(packetAs<CInitialState>(packet));
    forgetIn(packetAs<CTransition>(packet));
    if (packetAs<CTimestamp>(packet))
        static_cast<CTimestamp&>(packet).Timestamp(kUnknown64);
    if (packetAs<Quorvex::CMessage>(packet))
        static_cast<Quorvex::CMessage&>(packet).Timestamp(kUnknown64);
}

} // namespace

bool isDefinition(tagTCode code) {
    return isFollowedByText(code) && code != Message;
}

struct Merged::Source {
    explicit Source(const std::string& file) : input(file), unpaged(input), decompressor(unpaged, true, true) {}

    /// A packet, or null where a frame begins or ends.
    struct Ahead {
        PacketPointer packet;
        std::uint64_t tick;
        std::uint64_t offset;

        bool isBorder() const { return !packet; }
    };

    /// The packet that is so many behind the next one; null at the end of the trace.
    Ahead* at(std::size_t index);
    /// How many packets from the next one on have a tick that one sync packet may tell.
    std::size_t relatives();
    /// Whether the next packet's tick cannot be, with those behind it that are relative to it.
    bool isWrong(std::size_t count);
    void forget(Ahead& packet);
    /// Makes the next packet ready; false at the end of the trace.
    bool prepare();
    PacketPointer take();

    TraceInput input;
    Unpaged unpaged;
    CTraceDecompressor decompressor;
    std::deque<Ahead> ahead;
    std::uint64_t tick = 0; ///< of the last packet that has one
    bool hasTick = false;   ///< in this frame
    std::uint64_t wrong = 0;
    std::uint64_t firstWrong = 0; ///< its offset
};

Merged::Source::Ahead* Merged::Source::at(std::size_t index) {
    while (ahead.size() <= index) {
        PacketPointer packet(decompressor.get());
        if (!packet)
            return nullptr;
        const tagTCode code = packet->TraceCode();
        if (code == TraceEnabled || code == TraceDisabled || code == EndOfTrace)
            packet.reset();
        const std::uint64_t told = packet ? CViewerWriter::tickOf(*packet) : kUnknown64;
        ahead.push_back({std::move(packet), told, input.offset()});
    }
    return &ahead[index];
}

std::size_t Merged::Source::relatives() {
    const std::uint64_t block = ahead.front().tick >> 8;
    std::size_t count = 1;
    for (const Ahead* next = at(count); next && !next->isBorder() && count < kMostRelative; next = at(++count)) {
        if (next->tick != kUnknown64 && next->tick >> 8 != block)
            break;
    }
    return count;
}

bool Merged::Source::isWrong(std::size_t count) {
    const std::uint64_t claimed = ahead.front().tick;
    std::vector<std::uint64_t> before;
    unsigned behind = 0;
    for (const Ahead* next = at(count); next && !next->isBorder(); next = at(++count)) {
        if (next->tick == kUnknown64 || isDefinition(next->packet->TraceCode()))
            continue;
        if (next->tick >= claimed)
            ++behind;
        else if (!hasTick || next->tick >= tick)
            before.push_back(next->tick);
        if (before.size() + behind == kWitnesses)
            break;
    }
    // Of two packets without one before them, there is no telling which is wrong.
    if (before.size() < (hasTick ? 1 : 2) || before.size() <= 3 * behind)
        return false;
    const auto [first, last] = std::minmax_element(before.begin(), before.end());
    const std::uint64_t from = hasTick ? tick : *first;
    return (claimed - from) / kFar > *last - from;
}

void Merged::Source::forget(Ahead& packet) {
    forgetTick(*packet.packet);
    packet.tick = kUnknown64;
}

bool Merged::Source::prepare() {
    const Ahead* next = at(0);
    while (next && next->isBorder()) {
        ahead.pop_front();
        hasTick = false;
        next = at(0);
    }
    if (!next)
        return false;
    if (next->tick == kUnknown64)
        return true;
    if (hasTick && next->tick < tick && isDefinition(next->packet->TraceCode())) {
        forget(ahead.front());
    } else if (!hasTick || (next->tick > tick && next->tick >> 8 != tick >> 8)) {
        const std::size_t count = relatives();
        if (count < kMostRelative && isWrong(count)) {
            if (wrong == 0)
                firstWrong = ahead.front().offset;
            for (std::size_t i = 0; i < count; ++i) {
                wrong += ahead[i].tick != kUnknown64;
                forget(ahead[i]);
            }
        }
    }
    if (ahead.front().tick != kUnknown64) {
        tick = ahead.front().tick;
        hasTick = true;
    }
    return true;
}

PacketPointer Merged::Source::take() {
    PacketPointer packet = std::move(ahead.front().packet);
    ahead.pop_front();
    return packet;
}

Merged::Merged(const std::vector<std::string>& files) {
    for (const std::string& file : files) {
        m_sources.push_back(std::make_unique<Source>(file));
        advance(m_sources.size() - 1);
    }
}

Merged::~Merged() = default;

void Merged::advance(std::size_t index) {
    Source& source = *m_sources[index];
    if (source.prepare())
        m_turns.emplace(source.tick, index);
}

PacketPointer Merged::next() {
    if (m_turns.empty())
        return nullptr;
    const std::size_t index = m_turns.top().second;
    m_turns.pop();
    PacketPointer packet = m_sources[index]->take();
    advance(index);
    return packet;
}

ExitCode Merged::reportDamage() const {
    ExitCode exitCode = Done;
    for (const auto& source : m_sources) {
        if (source->wrong > 0) {
            tell(fmt::format(
                "{}: offset {}: a tick far ahead of all behind it; {} packet{} shown at the time of the one "
                "before",
                source->input.name(), source->firstWrong, source->wrong, source->wrong == 1 ? "" : "s"));
            exitCode = DoneWithLoss;
        }
        if (const ExitCode damage = source->input.reportDamage(); damage != Done)
            exitCode = damage;
    }
    return exitCode;
}

} // namespace qvx
