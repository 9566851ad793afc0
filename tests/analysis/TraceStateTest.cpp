#include "quorvex/analysis/TraceState.h"

#include "quorvex/analysis/CallTimes.h"
#include "quorvex/analysis/TraceCheck.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TracePiece.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSinkBufferStream.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "tests/support/Effort.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

constexpr unsigned kCore = CCoreContext::Len(), kHead = CPacketHeader::Len();

unsigned contextOf(const CTraceCursor& packet) {
    const KindFacts& facts = factsOf(packet.TraceCode());
    const unsigned absolute[] = {0, 24, 16, 16}, relative[] = {0, 2, 1, 1};
    return (facts.isRelative ? relative : absolute)[unsigned(facts.context)];
}

/// A reader that knows what a trace has told it, by the plainest means.
class StateReader {
public:
    void note(const CTraceCursor& packet) {
        const KindFacts& facts = factsOf(packet.TraceCode());
        const tagTCode code = facts.isRelative ? facts.otherForm : packet.TraceCode();
        const std::string rest(packet.payload() + contextOf(packet), packet.Length() - contextOf(packet));
        const auto core = packet.contextOf<CCoreContext>();
        const std::string place = std::to_string(core ? core->hwCtx : 0);
        const auto subject = subjectOf(*PacketPointer(packet.packet()));
        switch (code) {
        case FunctionEnter:
        case FunctionLeave:
            call(core->swCtx == ~0U ? "core " + place : "thread " + std::to_string(core->swCtx), rest, packet,
                 code == FunctionEnter);
            break;
        case HWExceptionEnter:
        case HWExceptionLeave:
            call("interrupt " + place, rest, packet, code == HWExceptionEnter);
            break;
        case ProcessEnter:
        case ProcessLeave:
            call("process " + place, rest, packet, code == ProcessEnter);
            break;
        case CounterValue:
        case CounterValueDim1:
        case CounterValueDim2:
        case CounterValueDimN:
            value("counter " + rest.substr(0, 4) + rest.substr(12), code, rest, packet);
            break;
        case CounterValueVar:
            value("counter " + rest.substr(0, 4) + rest.substr(4 + (rest.size() - 4) / 2), code, rest, packet);
            break;
        case VariableRead:
        case VariableWrite:
            value("variable " + rest.substr(0, 4), code, rest, packet);
            break;
        case InitialState:
        case Transition:
            value("machine " + rest.substr(0, 8), code, rest, packet);
            break;
        case Signal: {
            const auto bus = packet.contextOf<CBusContext>();
            auto& lines = m_lines[{bus->hwCtx, bus->master}];
            const std::size_t bytes = rest.size() / 2;
            for (std::size_t i = 0; i < 8 * bytes; ++i) {
                if (rest[bytes + i / 8] >> i % 8 & 1)
                    lines[i] = rest[i / 8] >> i % 8 & 1;
            }
            break;
        }
        case Timestamp:
            if (const auto clock = packet.as<CTimestamp>(); clock->is_Frequency_valid() && clock->Frequency() > 0)
                m_clocks.try_emplace(clock->is_HWCtx_valid() ? std::to_string(clock->HWCtx()) : "", clock->Frequency());
            break;
        case TraceEnabled:
            m_isInFrame = true;
            break;
        case TraceDisabled:
        case EndOfTrace:
            m_isInFrame = false;
            break;
        default:
            break;
        }
        if (subject && facts.role == Role::Definition) {
            m_defined[{subject->sort, subject->id}] = true;
            if (!packet.text().empty())
                m_names[{subject->sort, subject->id}] = {std::string(packet.text()), true};
        } else if (subject && facts.role == Role::Undefinition) {
            undefine(subject->sort, subject->id);
            if (subject->sort == TextSort::Counter)
                undefine(TextSort::CounterUnit, subject->id);
            std::erase_if(m_values, [&](const auto& value) {
                return (subject->sort == TextSort::Counter &&
                        value.first.starts_with("counter " + rest.substr(0, 4))) ||
                       (subject->sort == TextSort::Variable && value.first == "variable " + rest.substr(0, 4));
            });
        }
        m_contexts = packet.contexts();
    }

    std::string told() const {
        std::ostringstream out;
        std::set<std::pair<TextSort, std::uint64_t>> open;
        for (const auto& [place, calls] : m_open) {
            for (const auto& [id, what] : calls) {
                out << place << ": " << what << '\n';
                open.emplace(place[0] == 'p' ? TextSort::Process : TextSort::Function, id);
            }
        }
        for (const auto& [key, isDefined] : m_defined) {
            if (!isDefined && !open.contains(key))
                continue;
            const auto name = m_names.find(key);
            const bool hasName = name != m_names.end() && (name->second.second || open.contains(key));
            out << unsigned(key.first) << ' ' << key.second << " is " << (hasName ? hex(name->second.first) : "")
                << '\n';
        }
        for (const auto& [key, value] : m_values)
            out << hex(key) << ": " << value << '\n';
        for (const auto& [bus, lines] : m_lines) {
            for (const auto& [line, isSet] : lines)
                out << "line " << bus.first << ' ' << bus.second << ' ' << line << isSet << '\n';
        }
        for (const auto& [core, frequency] : m_clocks)
            out << "clock " << core << ' ' << frequency << '\n';
        char syncs[pages::kMostRestated];
        for (const ContextSort sort : {ContextSort::Core, ContextSort::Bus, ContextSort::System})
            out << m_contexts.knows(sort) << hex(std::string(syncs, m_contexts.writeSync(sort, syncs, sizeof syncs)));
        out << (m_isInFrame ? "\nin a frame" : "");
        return out.str();
    }

private:
    void undefine(TextSort sort, std::uint64_t id) {
        if (const auto at = m_defined.find({sort, id}); at != m_defined.end())
            at->second = false;
        if (const auto at = m_names.find({sort, id}); at != m_names.end())
            at->second.second = false;
    }
    void call(const std::string& place, const std::string& rest, const CTraceCursor& packet, bool isEnter) {
        const auto id = loadLittleEndian<std::uint32_t>(rest.data() + rest.size() - 4);
        auto& calls = m_open[place];
        if (isEnter) {
            calls.emplace_back(id, hex(rest) + whenOf(packet));
            return;
        }
        const bool isAny = place[0] != 'i' && place[0] != 'p' && id == ~0U;
        const auto at =
            std::find_if(calls.rbegin(), calls.rend(), [&](const auto& its) { return its.first == id || isAny; });
        if (at != calls.rend())
            calls.erase(at.base() - 1, calls.end());
    }
    void value(const std::string& key, tagTCode code, const std::string& rest, const CTraceCursor& packet) {
        m_values[key] = CTCodeInfo::TCodeToName(code) + hex(rest) + whenOf(packet);
    }
    static std::string whenOf(const CTraceCursor& packet) {
        const auto core = packet.contextOf<CCoreContext>();
        return core ? " at " + std::to_string(core->tick) + " on " + std::to_string(core->hwCtx) + " in " +
                          std::to_string(core->swCtx) + " " + std::to_string(core->ip)
                    : "";
    }

    std::map<std::string, std::vector<std::pair<std::uint64_t, std::string>>> m_open;
    std::map<std::pair<TextSort, std::uint64_t>, bool> m_defined;
    std::map<std::pair<TextSort, std::uint64_t>, std::pair<std::string, bool>> m_names; ///< that hold, or did
    std::map<std::string, std::string> m_values;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::map<std::size_t, int>> m_lines;
    std::map<std::string, std::uint64_t> m_clocks;
    CContexts m_contexts;
    bool m_isInFrame = false;
};

/// Random packets of all kinds in a few places, about a few things, at rising ticks; mostly calls.
class RandomTrace {
public:
    explicit RandomTrace(unsigned seed) : m_packets(seed) {}

    PacketPointer next() { return packetOf(below(2) ? call() : other()); }
    std::string bytes(unsigned count) {
        std::string trace;
        for (unsigned i = 0; i < count; ++i)
            trace += wireOf(*next());
        return trace;
    }
    unsigned below(unsigned limit) { return m_packets.below(limit); }

private:
    std::string call() {
        static constexpr tagTCode kCodes[] = {FunctionEnter, FunctionEnter,   FunctionEnter, FunctionLeave,
                                              FunctionLeave, FunctionLeave,   ProcessEnter,  HWExceptionEnter,
                                              ProcessLeave,  HWExceptionLeave};
        std::string wire(kHead + kCore + 4, '\xff');
        wire[0] = static_cast<char>(kCodes[below(10)]);
        wire[1] = static_cast<char>(kCore + 4);
        settle(wire);
        return wire;
    }
    std::string other() {
        PacketPointer packet = m_packets.next();
        while (packet->TraceCode() == Fill)
            packet = m_packets.next();
        std::string wire = wireOf(*packet);
        settle(wire);
        return wire;
    }
    /// Puts small numbers where there are identifiers, cores and threads, and the next tick.
    void settle(std::string& wire) {
        const tagTCode code = codeOf(wire);
        const KindFacts& facts = factsOf(code);
        const unsigned absolute[] = {0, 24, 16, 16}, relative[] = {0, 2, 1, 1};
        const unsigned context = (facts.isRelative ? relative : absolute)[unsigned(facts.context)];
        const auto length = static_cast<unsigned char>(wire[1]);
        char* const payload = wire.data() + kHead;
        if (context > 2) {
            storeLittleEndian(payload, std::uint64_t{m_tick += below(4)});
            storeLittleEndian(payload + 8, std::uint32_t{below(2)});
            storeLittleEndian(payload + 12, below(20) == 0 ? ~0U : std::uint32_t{below(3)});
        }
        const bool isOfMachine = code >= StateMachineDefine && code <= Transition;
        for (unsigned at = context; at + 4 <= length && (at == context || (isOfMachine && at < context + 12)); at += 4)
            storeLittleEndian(payload + at, std::uint32_t{below(3)});
        if (code == FunctionEnter || code == FunctionLeave || code == RelFunctionEnter || code == RelFunctionLeave)
            storeLittleEndian(payload + length - 4, below(30) == 0 ? ~0U : std::uint32_t{below(3)});
    }

    RandomPackets m_packets;
    unsigned m_tick = 1000;
};

std::string toldBy(const std::string& trace) {
    StateReader reader;
    CTraceCursor cursor(trace);
    while (cursor.next())
        reader.note(cursor);
    return reader.told();
}

template <class Write> std::string piece(bool isPaged, Write write) {
    std::ostringstream out;
    CTraceSinkBufferStream sink(out);
    TracePiece piece(sink, isPaged, 0x100);
    EXPECT_TRUE(write(piece));
    EXPECT_TRUE(piece.flush());
    return out.str();
}

/// The rules that a trace breaks; for what is not defined, all that is not.
std::set<std::string> findingsOf(const std::string& trace) {
    std::istringstream stream(trace);
    TraceFile file("trace", &stream);
    std::set<std::string> rules;
    checkTrace(file, [&rules](const Finding& finding) {
        std::string what(nameOf(finding.rule));
        if (finding.rule == CheckRule::Definition) // "is about type 0x01, which ...", "undefines type 0x01, which ..."
            what = finding.text.substr(finding.text.starts_with("un") ? 10 : 9, finding.text.find(',') - 9);
        rules.insert(what.substr(0, what.find(',')));
    });
    return rules;
}

/// The packets between two places, but for those that only the layout needs, and frames, whose lengths depend on it.
std::vector<std::string> contentsOf(const std::string& trace, std::uint64_t from = 0, std::uint64_t to = kUnknown64) {
    std::vector<std::string> packets;
    CTraceCursor cursor(trace);
    while (cursor.next()) {
        const tagTCode code = cursor.TraceCode();
        if (cursor.offset() >= from && cursor.end() <= to && !isPagedBusiness(code) && code != TraceDisabled &&
            code != EndOfTrace)
            packets.push_back(wireOf(*PacketPointer(cursor.packet())) + " " + std::to_string(cursor.tick()));
    }
    return packets;
}

std::string paged(RandomTrace& random, std::size_t size, bool hasFrame) {
    std::ostringstream out;
    CTraceSinkBufferStream sink(out);
    CTraceWriterPaged writer(sink);
    CTraceEnabled enabled;
    CTraceDisabled disabled;
    CEndOfTrace end;
    bool isDone = !hasFrame || writer.put(&enabled);
    while (isDone && writer.tellp() < size) {
        const auto packet = random.next();
        isDone = (packet->TraceCode() >= TraceEnabled && packet->TraceCode() <= EndOfTrace) || writer.put(packet.get());
    }
    EXPECT_TRUE(isDone && (!hasFrame || (writer.put(&disabled) && writer.put(&end))));
    writer.flush();
    return out.str();
}

TEST(TraceState, TellsAReaderWhatAllBeforeHasTold) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        RandomTrace random(seed);
        const std::string trace = random.bytes(150);
        const auto before = findingsOf(trace);
        StateReader reader;
        TraceState state(TraceState::Start::OfTrace);
        std::vector<TraceState> parts;
        CTraceCursor cursor(trace);
        while (cursor.next()) {
            reader.note(cursor);
            state.note(cursor);
            if (parts.empty() || random.below(20) == 0)
                parts.emplace_back(parts.empty() ? TraceState::Start::OfTrace : TraceState::Start::Unknown);
            parts.back().note(cursor);
            const auto write = [&](TracePiece& to) { return to.beginFrame(state.frame()) && to.put(state); };
            const std::string front = piece(false, write);
            ASSERT_EQ(toldBy(front), reader.told()) << seed << ' ' << cursor.offset();
            ASSERT_EQ(toldBy(piece(true, write)), reader.told());
            const std::string cut = piece(false, [&](TracePiece& to) {
                CTraceCursor rest(std::string_view(trace).substr(static_cast<std::size_t>(cursor.end())), cursor.end(),
                                  cursor.contexts());
                bool isDone = write(to);
                while (isDone && rest.next())
                    isDone = to.put(std::as_const(rest));
                return isDone && to.end(false);
            });
            auto found = findingsOf(cut);
            std::erase_if(found, [&](const std::string& rule) { return before.contains(rule); });
            ASSERT_EQ(found, std::set<std::string>()) << seed << ' ' << cursor.offset();
        }
        TraceState joined = std::move(parts[0]);
        for (std::size_t i = 1; i < parts.size(); ++i)
            joined.join(std::move(parts[i]));
        EXPECT_TRUE(joined.isExact());
        EXPECT_EQ(toldBy(piece(false, [&](TracePiece& to) { return to.beginFrame(joined.frame()) && to.put(joined); })),
                  reader.told())
            << seed;
    }
}

TEST(TraceState, GivesACutTheTimesOfItsWindow) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        RandomPackets random(seed);
        std::string trace = wireOf(*std::make_unique<CTimestamp>(0, std::uint64_t{1000}));
        for (std::uint64_t tick = 1; tick < 400; tick += random.below(3)) {
            const CCoreContext context(tick, random.below(2), random.below(9) ? random.below(3) : ~0U, kUnknown64);
            const unsigned id = random.below(4);
            switch (random.below(20)) {
            case 0:
                trace += wireOf(*std::make_unique<CFunctionDefine>(context, id, &"abcd"[random.below(4)]));
                break;
            case 1:
                trace += wireOf(*std::make_unique<CFunctionUndefine>(context, id));
                break;
            default:
                trace += random.below(2) ? wireOf(*std::make_unique<CFunctionEnter>(context, id))
                                         : wireOf(*std::make_unique<CFunctionLeave>(context, id));
            }
        }
        const std::uint64_t from = random.below(400), to = from + random.below(400);
        TraceState state(TraceState::Start::OfTrace);
        std::uint64_t end = 0;
        const std::string cut = piece(true, [&](TracePiece& out) {
            CTraceCursor cursor(trace);
            bool isDone = true, isIn = false;
            while (isDone && cursor.next() && (cursor.TraceCode() == Timestamp || cursor.tick() < to)) {
                end = cursor.end();
                if (!isIn && (cursor.TraceCode() == Timestamp || cursor.tick() < from)) {
                    state.note(cursor);
                } else {
                    isDone = (isIn || out.put(state)) && out.put(std::as_const(cursor));
                    isIn = true;
                }
            }
            return isDone && (isIn || out.put(state)) && out.end();
        });
        const auto timesOf = [&](const std::string& bytes) {
            std::istringstream stream(bytes);
            TraceFile file("trace", &stream);
            CallTimes times(true, {from, to});
            CTraceNames names;
            times.read(file, names, 0);
            std::ostringstream out;
            for (const auto& [key, its] : times.times()) {
                if (its.calls > 0)
                    out << key.thread << '/' << key.function << ' ' << its.calls << ' ' << its.unfinished << ' '
                        << its.total << ' ' << its.self << ' ' << its.durations.percentile(50) << '\n';
            }
            return out.str();
        };
        EXPECT_EQ(timesOf(cut), timesOf(trace.substr(0, static_cast<std::size_t>(end))))
            << seed << ' ' << from << ' ' << to;
    }
}

TEST(TraceState, ForgetsWhatIsUndefinedAndDoesNotRun) {
    constexpr unsigned kMany = 20'000;
    const CCoreContext context(1, 0, 0, 0);
    TraceState state(TraceState::Start::OfTrace), part;
    for (TraceState* its : {&state, &part}) {
        std::string trace;
        for (unsigned id = 0; id < kMany; ++id) {
            trace += wireOf(*std::make_unique<CFunctionDefine>(context, id, "f"));
            if (id == 7)
                trace += wireOf(*std::make_unique<CFunctionEnter>(context, id));
            trace += wireOf(*std::make_unique<CFunctionUndefine>(context, id));
        }
        CTraceCursor cursor(trace);
        while (cursor.next())
            its->note(cursor);
    }
    state.join(std::move(part));
    std::string told;
    state.eachPacket([&](std::string_view packet) { told += std::to_string(packet[0] & 0xFF) + " "; });
    EXPECT_EQ(told, "144 146 146 ");
}

TEST(TraceState, JoinsWhatIsDefinedAnewBehindAnUndefinition) {
    const CCoreContext context(1, 0, 0, 0);
    const std::string trace = wireOf(*std::make_unique<CFunctionDefine>(context, 7, "f"));
    const std::string end = wireOf(*std::make_unique<CFunctionUndefine>(context, 7));
    for (const char* name : {"", "g"}) {
        TraceState state(TraceState::Start::OfTrace), part;
        const std::string next = end + wireOf(*std::make_unique<CFunctionDefine>(context, 7, name));
        CTraceCursor before(trace), cursor(next);
        while (before.next())
            state.note(before);
        while (cursor.next())
            part.note(cursor);
        state.join(std::move(part));
        std::size_t count = 0;
        state.eachPacket([&](std::string_view packet) {
            ++count;
            EXPECT_EQ(packet, std::string_view(next).substr(end.size()));
        });
        EXPECT_EQ(count, 1U) << name;
    }
}

TEST(TraceState, TellsWhereItIsNotExact) {
    const CCoreContext context(1, 0, 0, 0);
    for (const unsigned count : {0x10000U, 0x10001U}) {
        std::string trace;
        for (unsigned i = 0; i < count; ++i)
            trace += wireOf(*std::make_unique<CFunctionLeave>(context, i));
        TraceState whole(TraceState::Start::OfTrace), state(TraceState::Start::OfTrace), part;
        for (TraceState* its : {&state, &part}) {
            CTraceCursor cursor(trace);
            while (cursor.next())
                its->note(cursor);
        }
        EXPECT_TRUE(state.isExact());
        whole.join(std::move(part));
        EXPECT_EQ(whole.isExact(), count == 0x10000U);
    }
}

TEST(TracePages, CopyAnyPartOfATrace) {
    const TemporaryDirectory directory;
    for (unsigned seed = 1; seed <= effort(3, 2); ++seed) {
        RandomTrace random(seed);
        const std::string trace = paged(random, 5 * kPageSize / 2 + random.below(2 * kPageSize), seed % 2);
        TracePages pages(directory.write("trace", trace));
        ASSERT_TRUE(pages.arePages());
        EXPECT_EQ(pages.count(), trace.size() / kPageSize + 1);
        std::vector<std::uint64_t> places;
        CTraceCursor cursor(trace);
        while (cursor.next())
            places.push_back(cursor.offset());
        const auto before = findingsOf(trace);
        for (unsigned cut = 0; cut < 6; ++cut) {
            const auto place = [&] { return places[random.below(static_cast<unsigned>(places.size()))]; };
            std::uint64_t from = cut == 0 ? 0 : cut == 1 ? kPageSize : place();
            std::uint64_t to = cut == 0 ? trace.size() : cut == 1 ? 3 * kPageSize : place();
            to = std::min<std::uint64_t>(to, trace.size());
            if (to < from)
                std::swap(from, to);
            const TraceState state = pages.stateAt(from);
            StateReader reader;
            CTraceCursor naive(trace);
            while (naive.end() < from && naive.next())
                reader.note(naive);
            ASSERT_EQ(
                toldBy(piece(true, [&](TracePiece& out) { return out.beginFrame(state.frame()) && out.put(state); })),
                reader.told());
            std::size_t front = 0;
            const std::string out = piece(true, [&](TracePiece& its) {
                const bool isBegun = its.beginFrame(state.frame()) && its.put(state);
                front = static_cast<std::size_t>(its.position());
                return isBegun && pages.copyTo(its, from, to, state.contexts(), state.frame()) && its.end();
            });
            // Its front, and then the packets of the part.
            auto expected = contentsOf(out.substr(0, front));
            CTraceCursor part(std::string_view(trace).substr(0, static_cast<std::size_t>(to)));
            while (part.next()) {
                const tagTCode code = part.TraceCode();
                if (part.offset() >= from && !isPagedBusiness(code) && code != TraceDisabled && code != EndOfTrace)
                    expected.push_back(wireOf(*PacketPointer(part.packet())) + " " + std::to_string(part.tick()));
            }
            ASSERT_EQ(contentsOf(out), expected) << seed << ' ' << from << ' ' << to;
            auto found = findingsOf(out);
            std::erase_if(found, [&](const std::string& rule) { return before.contains(rule); });
            ASSERT_EQ(found, std::set<std::string>()) << seed << ' ' << from << ' ' << to;
            ASSERT_EQ(pages.damage().places, 0U);
            if (to - from > 2 * kPageSize) { // some are there as they were
                const auto page = static_cast<std::size_t>((from + kPageSize) / kPageSize * kPageSize);
                EXPECT_NE(out.find(trace.substr(page, kPageSize)), out.npos) << seed << ' ' << from;
            }
        }
    }
}

// What a cut is made of packet by packet.
TEST(TracePiece, TakesAllThatCanBeReadOfADamagedTrace) {
    RandomTrace random(5);
    const std::string whole = random.bytes(effort(40, 15));
    for (std::size_t at = 0; at < whole.size(); ++at) {
        const auto old = static_cast<unsigned char>(whole[at]);
        for (const unsigned value : {256U, old ^ 1U, old ^ 0x80U, 0U, 0xFFU, 0x7EU}) { // 256: cut there
            std::string damaged = whole.substr(0, value < 256 ? whole.size() : at);
            if (value < 256)
                damaged[at] = static_cast<char>(value);
            const std::string out = piece(at % 2, [&](TracePiece& its) {
                CTraceCursor cursor(damaged);
                bool isDone = true;
                while (isDone && cursor.next())
                    isDone = its.put(std::as_const(cursor));
                return isDone;
            });
            auto found = contentsOf(out), expected = contentsOf(damaged);
            for (auto* packets : {&found, &expected}) // an empty text tells where a text of its own begins
                std::erase_if(*packets,
                              [](const std::string& its) { return its.starts_with(std::string_view("~\0", 2)); });
            ASSERT_EQ(found, expected) << at << " is " << value;
        }
    }
}

TEST(TracePages, CopyAllThatCanBeReadOfADamagedTrace) {
    const TemporaryDirectory directory;
    RandomTrace random(20261122);
    const std::string whole = paged(random, 4 * kPageSize, false);
    for (unsigned round = 0; round < effort(60, 60); ++round) {
        std::string damaged = whole;
        const std::size_t page = random.below(4) * kPageSize, other = random.below(4) * kPageSize;
        switch (round % 4) {
        case 0:
            damaged.replace(page, kPageSize, kPageSize, round % 8 ? '\xff' : '\0');
            break;
        case 1:
            damaged.replace(page, kPageSize, whole, other, kPageSize);
            damaged.replace(other, kPageSize, whole, page, kPageSize);
            break;
        case 2:
            for (unsigned i = 0; i < 20; ++i)
                damaged[random.below(static_cast<unsigned>(whole.size()))] = static_cast<char>(random.below(256));
            break;
        default:
            damaged.resize(random.below(static_cast<unsigned>(whole.size())));
        }
        TracePages pages(directory.write("trace", damaged));
        for (unsigned cut = 0; cut < 3; ++cut) {
            // From page to page, and from one packet to before another.
            std::uint64_t places[] = {random.below(5) * kPageSize, random.below(5) * kPageSize};
            for (std::uint64_t& place : places) {
                if (place = std::min<std::uint64_t>(place, damaged.size()); cut == 0)
                    continue;
                place = random.below(static_cast<unsigned>(damaged.size()) + 1);
                CTraceCursor walk(damaged);
                while (walk.end() < place && walk.next()) {
                }
                place = walk.end();
            }
            const auto [from, to] = std::minmax(places[0], places[1]);
            std::size_t front = 0;
            const std::string out = piece(true, [&](TracePiece& its) {
                const TraceState state = pages.stateAt(from);
                const bool isBegun = its.put(state);
                front = static_cast<std::size_t>(its.position());
                return isBegun && pages.copyTo(its, from, to, state.contexts(), state.frame());
            });
            const auto found = contentsOf(out, front);
            const auto lostOf = [&found](const std::vector<std::string>& expected) {
                auto at = found.begin();
                std::string lost;
                for (const std::string& packet : expected) {
                    const auto next = std::find(at, found.end(), packet);
                    if (next == found.end())
                        lost += hex(packet) + "\n";
                    else
                        at = next + 1;
                }
                return lost;
            };
            // Who reads on from damage may take bytes behind it for packets; a page that is read by itself has none.
            const std::uint64_t begin = pages::beginAt(from);
            const std::string lost = lostOf(contentsOf(damaged, from, to));
            ASSERT_TRUE(
                lost.empty() ||
                lostOf(contentsOf(damaged.substr(static_cast<std::size_t>(begin)), from - begin, to - begin)).empty())
                << round << ' ' << from << ' ' << to << ' ' << found.size() << ' ' << lost;
        }
    }
}

TEST(TracePages, FindThePlaceOfATick) {
    const TemporaryDirectory directory;
    RandomPackets random(3);
    std::ostringstream stream;
    CTraceSinkBufferStream sink(stream);
    CTraceWriterPaged writer(sink);
    std::uint64_t tick = 100;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ticks;
    while (writer.tellp() < 6 * kPageSize) {
        tick += random.below(5) == 0 ? random.below(1000) : 0;
        const bool hasTick = random.below(50) > 0;
        const std::string text(hasTick ? 1 : 255, 'x');
        CFunctionEnter enter(CCoreContext(tick, 0, 0, 0), 1);
        CCharString string(reinterpret_cast<const unsigned char*>(text.data()),
                           static_cast<unsigned char>(text.size()));
        for (unsigned i = 0; i < (hasTick ? 1U : 30U); ++i)
            ASSERT_TRUE(writer.put(hasTick ? static_cast<CPacket*>(&enter) : &string));
        if (hasTick)
            ticks.emplace_back(tick, writer.tellp() - enter.StreamSize());
    }
    writer.flush();
    TracePages pages(directory.write("trace", stream.str()));
    ASSERT_TRUE(pages.arePages());
    EXPECT_TRUE(pages.areInOrder());
    for (unsigned i = 0; i < 300; ++i) {
        const std::uint64_t wanted = i == 0 ? 0 : i == 1 ? tick + 1 : random.below(static_cast<unsigned>(tick));
        const auto at = std::ranges::lower_bound(ticks, wanted, {}, [](const auto& its) { return its.first; });
        ASSERT_EQ(pages.placeOf(wanted), at == ticks.end() ? pages.size() : at->second) << wanted;
    }
}

} // namespace
} // namespace Quorvex::test
