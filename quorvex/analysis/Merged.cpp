#include "quorvex/analysis/Merged.h"

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <new>

namespace Quorvex {

namespace {

/// So many packets behind a tick tell whether it can be,
constexpr unsigned kWitnesses = 8;
/// if they stand among so many: those without a tick and definitions tell nothing.
constexpr std::size_t kMostBehind = 128;
/// A tick that more than so many were relative to is believed.
constexpr std::size_t kMostRelative = 4096;
/// A jump is far when the packets behind it would have room in it so many times.
constexpr std::uint64_t kFar = 4;
/// So many packets are read ahead to see that ticks go on as they should.
constexpr std::size_t kFewAhead = 32;

/// Ticks of clocks that start again are below that.
constexpr std::uint64_t kAround = std::uint64_t{1} << 32;

/// More traces than that are not kept open.
constexpr std::size_t kMostOpen = 64;
/// Packets that are taken out of all of these together while they are open, and out of each at least.
constexpr std::size_t kMostAhead = 0x80000;
constexpr std::size_t kLeastAhead = 32;
/// Bytes that they are read at a time.
constexpr unsigned kPortion = 0x1000;

/// Makes the packet one without a time.
void forgetTick(CPacket& packet) {
    const auto forgetIn = [](auto* part) {
        if (part)
            part->Tick(kUnknown64);
    };
    forgetIn(contextOf<CCoreContext>(packet));
    forgetIn(contextOf<CBusContext>(packet));
    forgetIn(contextOf<CSystemContext>(packet));
    forgetIn(packetAs<CInitialState>(packet));
    forgetIn(packetAs<CTransition>(packet));
    if (auto* timestamp = packetAs<CTimestamp>(packet))
        timestamp->Timestamp(kUnknown64);
    if (auto* message = packetAs<CMessage>(packet))
        message->Timestamp(kUnknown64);
}

/// Whether the packet tells what something is called, which does not happen at any time.
bool isDefinition(const CPacket& packet) {
    return factsOf(packet.TraceCode()).role == Role::Definition;
}

} // namespace

struct Merged::Source {
    explicit Source(std::unique_ptr<TraceFile> trace) : input(std::move(trace)) {}

    /// A packet, or null where a frame begins or ends.
    struct Ahead {
        PacketPointer packet;
        std::uint64_t tick = 0;
        std::uint64_t offset = 0;
        std::uint64_t rises = 0; ///< of the source, up to this packet

        bool isBorder() const { return !packet; }
    };

    /// Reads packets until there are so many, or the trace ends.
    void read(std::size_t most);
    std::size_t size() const { return static_cast<std::size_t>(added - taken); } ///< packets that are read ahead
    /// The packet that is so many behind the next one, of those. It stays there until another is read.
    Ahead& ahead(std::size_t index) { return numbered(taken + index); }
    Ahead& numbered(std::uint64_t packet) { return ring[static_cast<std::size_t>(packet) & (ring.size() - 1)]; }
    /// The same, read if it has to be; null at the end of the trace. Throws where the next one cannot be read.
    Ahead* at(std::size_t index);
    void grow();
    void push(PacketPointer packet, std::uint64_t told);
    void pop() { ++taken; }
    /// Whether ticks are seen to go on from the next packet's, which isWrong() then need not look into.
    bool isInOrder();
    /// The same, by what has been read.
    bool isInOrder(const Ahead& next) const {
        // What rises behind the next packet are witnesses for it.
        return rises - next.rises >= kWitnesses && fall <= taken + 1;
    }
    /// How many packets from the next one on have a tick that one sync packet may tell.
    std::size_t relatives();
    /// Whether the next packet's tick cannot be, with those behind it that are relative to it.
    bool isWrong(std::size_t count);
    /// Whether the clock has started again since the last packet with a tick, as the ones behind the next packet tell.
    bool isAround();
    /// Takes the next packet's tick on from where the clock started again, if it has.
    void extend();
    /// How many packets may be relative to a tick that is looked into.
    std::size_t mostRelative() const { return batch > 0 ? std::min(batch, kMostRelative) : kMostRelative; }
    void forget(Ahead& packet);
    /// Makes the next packet ready; false at the end of the trace.
    bool prepare(bool keepsOldTicks) { return goesOn() || look(keepsOldTicks); }
    /// Whether the next packet has been read, and its tick is seen to go on from the last one, as nearly always.
    bool goesOn();
    bool look(bool keepsOldTicks); ///< the same as prepare, in all cases

    std::unique_ptr<TraceFile> input;
    PacketFilter* filter = nullptr;
    std::size_t number = 0;                          ///< of the trace, for the filter
    std::vector<Ahead> ring = std::vector<Ahead>(4); ///< packets by their numbers; of as many as a power of two
    std::uint64_t added = 0;                         ///< packets that have come into it,
    std::uint64_t taken = 0;                         ///< and that have left it
    std::uint64_t fall = 0;     ///< of the last packet with a lower tick than the one before it, the number
    std::uint64_t rises = 0;    ///< ticks that a sync packet of the one before could not have told
    std::uint64_t readTick = 0; ///< the last one that is known
    std::size_t batch = 0;      ///< packets that are read before the file is closed again; 0 when it stays open
    bool isEnded = false;
    std::exception_ptr error; ///< why it has ended; thrown when all that has been read was handed out
    std::uint64_t tick = 0;   ///< of the last packet that has one
    bool hasTick = false;     ///< in this frame
    bool extendsTicks = false;
    std::uint64_t gone = 0; ///< ticks of the clock before it started again
    std::uint64_t turn = 0; ///< of the last packet that has a tick, that tick as it was changed
    std::uint64_t wrong = 0;
    std::uint64_t firstWrong = 0; ///< its offset
};

Merged::Source::Ahead* Merged::Source::at(std::size_t index) {
    if (size() <= index && !isEnded) {
        read(std::max(index + 1, batch));
        if (batch > 0)
            input->pause();
    }
    if (error && size() == 0)
        std::rethrow_exception(std::exchange(error, nullptr));
    return index < size() ? &ahead(index) : nullptr;
}

void Merged::Source::read(std::size_t most) try {
    while (size() < most) {
        isEnded = !input->advance();
        if (isEnded)
            return;
        const CTraceCursor& at = input->cursor();
        const tagTCode code = at.TraceCode();
        const KindFacts& facts = factsOf(code);
        if (facts.sync != ContextSort::None || code == Fill || (filter && !filter->wants(number, at)))
            continue;
        if (facts.isFrame) {
            push(nullptr, kUnknown64);
            continue;
        }
        push(absoluteAt(at), at.tick());
    }
} catch (const std::exception&) {
    isEnded = true;
    error = std::current_exception();
}

void Merged::Source::push(PacketPointer packet, std::uint64_t told) {
    if (told != kUnknown64) {
        if (told < readTick)
            fall = added + 1;
        else if (told >> 8 != readTick >> 8 && !isDefinition(*packet))
            ++rises;
        readTick = told;
    }
    if (size() == ring.size())
        grow();
    Ahead& last = numbered(added++);
    last.packet = std::move(packet);
    last.tick = told;
    last.offset = input->offset();
    last.rises = rises;
}

void Merged::Source::grow() {
    std::vector<Ahead> larger(2 * ring.size());
    for (std::uint64_t packet = taken; packet < added; ++packet)
        larger[static_cast<std::size_t>(packet) & (larger.size() - 1)] = std::move(numbered(packet));
    ring = std::move(larger);
}

bool Merged::Source::isInOrder() {
    if (rises - ahead(0).rises < kWitnesses && size() < kFewAhead && !isEnded && batch == 0)
        read(kFewAhead);
    return isInOrder(ahead(0));
}

std::size_t Merged::Source::relatives() {
    const std::uint64_t block = ahead(0).tick >> 8;
    std::size_t count = 1;
    for (const Ahead* next = at(count); next && !next->isBorder() && count < mostRelative(); next = at(++count)) {
        if (next->tick != kUnknown64 && next->tick >> 8 != block)
            break;
    }
    return count;
}

bool Merged::Source::isWrong(std::size_t count) {
    const std::uint64_t claimed = ahead(0).tick;
    const std::size_t most = count + std::min(mostRelative(), kMostBehind);
    std::vector<std::uint64_t> before;
    unsigned behind = 0;
    for (const Ahead* next = at(count); next && !next->isBorder() && count < most; next = at(++count)) {
        if (next->tick == kUnknown64 || isDefinition(*next->packet))
            continue;
        if (next->tick >= claimed)
            ++behind;
        else if (!hasTick || next->tick >= tick)
            before.push_back(next->tick);
        if (before.size() + behind == kWitnesses)
            break;
    }
    // Of two packets without one before them, there is no telling which is wrong.
    if (before.size() < (hasTick ? 1 : 2) || before.size() <= std::size_t{3} * behind)
        return false;
    const auto [first, last] = std::minmax_element(before.begin(), before.end());
    const std::uint64_t from = hasTick ? tick : *first;
    return (claimed - from) / kFar > *last - from;
}

void Merged::Source::forget(Ahead& packet) {
    forgetTick(*packet.packet);
    packet.tick = kUnknown64;
}

bool Merged::Source::isAround() {
    const std::uint64_t claimed = ahead(0).tick;
    if (tick >= kAround || claimed >= tick || tick - claimed <= kAround / 2)
        return false;
    unsigned behind = 0, elsewhere = 0;
    const Ahead* next = nullptr;
    for (std::size_t i = 1; i < kMostBehind && (next = at(i)) && !next->isBorder(); ++i) {
        if (next->tick == kUnknown64 || isDefinition(*next->packet))
            continue;
        ++(next->tick < kAround / 2 ? behind : elsewhere);
        if (behind + elsewhere == kWitnesses)
            break;
    }
    return behind > 3 * elsewhere;
}

void Merged::Source::extend() {
    if (ahead(0).tick >= kAround)
        gone = 0; // it is no such clock
    else if (extendsTicks && hasTick && isAround())
        gone += kAround;
    if (gone == 0)
        return;
    Ahead& packet = ahead(0);
    packet.tick += gone;
    changeNumbers(*packet.packet, [this](FieldMeaning meaning, std::string_view, std::uint64_t& value) {
        value += meaning == FieldMeaning::Tick ? gone : 0;
    });
}

inline bool Merged::Source::goesOn() {
    if (size() == 0)
        return false;
    const Ahead& next = ahead(0);
    if (next.isBorder() || next.tick == kUnknown64 || !hasTick || next.tick < tick || gone > 0)
        return false;
    const bool isNear = next.tick >> 8 == tick >> 8;
    if (!isNear && !isInOrder(next))
        return false;
    tick = next.tick;
    return true;
}

bool Merged::Source::look(bool keepsOldTicks) {
    const auto first = [this] { return size() == 0 ? at(0) : &ahead(0); };
    const Ahead* next = first();
    while (next && next->isBorder()) {
        pop();
        hasTick = false;
        next = first();
    }
    if (!next)
        return false;
    if (next->tick == kUnknown64)
        return true;
    if (hasTick && next->tick < tick && isDefinition(*next->packet)) { // an old tick means nothing there
        if (keepsOldTicks)
            ahead(0).tick = kUnknown64;
        else
            forget(ahead(0));
    } else if ((!hasTick || (next->tick > tick && next->tick >> 8 != tick >> 8)) && !isInOrder()) {
        const std::size_t count = relatives();
        if (count < mostRelative() && isWrong(count)) {
            if (wrong == 0)
                firstWrong = ahead(0).offset;
            for (std::size_t i = 0; i < count; ++i) {
                wrong += ahead(i).tick != kUnknown64;
                forget(ahead(i));
            }
        }
    }
    const std::uint64_t told = ahead(0).tick;
    if (told == kUnknown64)
        return true;
    if (told < tick || gone > 0)
        extend();
    tick = told;
    hasTick = true;
    return true;
}

PacketFilter::~PacketFilter() = default;

PacketChange::~PacketChange() = default;

Merged::Merged() = default;

Merged::~Merged() = default;

void Merged::add(std::unique_ptr<TraceFile> trace) {
    trace->pause(); // there may be more of them than can be open
    m_sources.push_back(platform::makeOwned<Source>(std::move(trace)));
}

void Merged::begin() {
    while (m_begun < m_sources.size()) {
        const std::size_t index = m_begun++;
        Source& source = *m_sources[index];
        source.filter = m_filter;
        source.number = index;
        source.extendsTicks = m_extendsTicks;
        if (m_sources.size() > kMostOpen) {
            source.batch = std::max(kLeastAhead, kMostAhead / m_sources.size());
            source.input->readAtATime(kPortion);
        }
        if (Turn turn; prepare(index, turn))
            enqueue(turn);
    }
}

bool Merged::prepare(std::size_t index, Turn& turn) {
    Source& source = *m_sources[index];
    if (!source.prepare(m_keepsOldTicks))
        return false;
    Source::Ahead& next = source.ahead(0);
    if (m_change) {
        m_change->change(index, *next.packet);
        if (next.tick != kUnknown64)
            next.tick = absoluteTickOf(*next.packet);
    }
    if (next.tick != kUnknown64)
        source.turn = next.tick;
    turn = {source.turn, index};
    return true;
}

void Merged::enqueue(Turn turn) {
    m_turns.push_back(turn);
    std::ranges::push_heap(m_turns, std::ranges::greater());
}

PacketPointer Merged::next() {
    // The file of the last packet goes on only now: what cannot be read any more does not cost that packet. Nor does it
    // cost those of other files: whoever asks again gets them.
    if (m_begun < m_sources.size())
        begin();
    const std::size_t last = std::exchange(m_file, kNone);
    m_ended = kNone;
    if (Turn turn; last != kNone) {
        if (!prepare(last, turn))
            m_ended = last;
        else if (m_turns.empty() || turn < m_turns.front())
            return take(last);
        else
            enqueue(turn);
    }
    if (m_turns.empty())
        return nullptr;
    std::ranges::pop_heap(m_turns, std::ranges::greater());
    const std::size_t first = m_turns.back().second;
    m_turns.pop_back();
    return take(first);
}

PacketPointer Merged::take(std::size_t index) {
    Source& source = *m_sources[index];
    Source::Ahead& first = source.ahead(0);
    PacketPointer packet = std::move(first.packet);
    m_offset = first.offset;
    m_tick = first.tick;
    m_file = index;
    source.pop();
    return packet;
}

const TraceFile& Merged::trace(std::size_t file) const {
    return *m_sources[file]->input;
}

TraceReport Merged::report(std::size_t file) const {
    const Source& source = *m_sources[file];
    TraceReport report = source.input->report();
    report.wrongTicks = source.wrong;
    report.firstWrongTick = source.firstWrong;
    return report;
}

} // namespace Quorvex
