#include "quorvex/analysis/TraceRepair.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceSearch.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceCompressor.h"
#include "quorvex/stream/TraceSourceBufferStream.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

struct Repaired {
    std::string trace;
    std::string notes; ///< a line each
    RepairReport report;
};

Repaired repaired(const std::string& trace, RepairOptions options = {}) {
    MemorySource source(trace);
    MemorySink sink;
    Repaired result;
    result.report = repairTrace(source, sink, options, [&result](const RepairNote& note) {
        result.notes += std::to_string(note.offset) + "+" + std::to_string(note.length) + " " +
                        (note.kind == Invalid ? "-" : CTCodeInfo::TCodeToName(note.kind)) + " " +
                        std::string(nameOf(note.rule)) + (note.isLoss ? ": " : " (no loss): ") + note.text + "\n";
    });
    result.trace = sink.bytes;
    return result;
}

/// What checkTrace finds of the form of a trace, a line each; without offsets.
std::multiset<std::string> faultsIn(const std::string& trace) {
    std::multiset<std::string> found;
    std::istringstream stream(trace);
    try {
        TraceFile file("trace", &stream);
        checkTrace(file, [&found](const Finding& finding) {
            if (finding.rule < CheckRule::Definition)
                found.insert(std::string(nameOf(finding.rule)) + ": " + finding.text + "\n");
        });
    } catch (const TraceError&) {
        found.insert("is no trace");
    }
    return found;
}

/// Those of one trace that another has not.
std::string newFaults(const std::string& trace, const std::string& other) {
    std::multiset<std::string> faults = faultsIn(trace);
    if (!faults.empty()) {
        for (const std::string& fault : faultsIn(other)) {
            if (const auto at = faults.find(fault); at != faults.end())
                faults.erase(at);
        }
    }
    std::string all;
    for (const std::string& fault : faults)
        all += fault;
    return all;
}

/// A packet as it stands in a trace, each part of a text by itself.
struct Atom {
    std::uint64_t offset;
    tagTCode code;
    std::string_view bytes; ///< of the trace
    std::uint64_t tick;     ///< of a relative one
    std::uint64_t ip;
    std::uint32_t place;
};

std::vector<Atom> atomsOf(std::string_view trace) {
    std::vector<Atom> atoms;
    CContexts contexts;
    for (std::size_t at = 0; at < trace.size();) {
        const unsigned size = detail::sizeOfPacket(trace.substr(at));
        if (size == 0)
            break;
        const auto code = tagTCode(static_cast<unsigned char>(trace[at]));
        const char* payload = trace.data() + at + 2;
        contexts.note(code, payload, size - 2);
        Atom atom{at, code, trace.substr(at, size), 0, 0, 0};
        if (sortOfRelative(code) == ContextSort::Core) {
            const auto context = contexts.resolve<CCoreContext>(code, payload);
            atom = {at, code, atom.bytes, checkedTick(context->tick), context->ip, context->hwCtx};
        } else if (sortOfRelative(code) == ContextSort::Bus) {
            const auto context = contexts.resolve<CBusContext>(code, payload);
            atom = {at, code, atom.bytes, checkedTick(context->tick), 0, context->master};
        } else if (sortOfRelative(code) == ContextSort::System) {
            const auto context = contexts.resolve<CSystemContext>(code, payload);
            atom = {at, code, atom.bytes, checkedTick(context->tick), 0, context->master};
        }
        atoms.push_back(atom);
        at += size;
    }
    return atoms;
}

/// Packets of the original beyond the bytes from `from` to before `to` that are not in the other; "" for none. Relative
/// ones must have their context, or an unknown one, unless `isAnyContext`.
std::string lostIn(const std::vector<Atom>& original, const std::string& other, std::uint64_t from, std::uint64_t to,
                   bool isAnyContext = false) {
    const std::vector<Atom> there = atomsOf(other);
    auto at = there.begin();
    std::string lost;
    for (const Atom& atom : original) {
        if ((atom.offset < to && atom.offset + atom.bytes.size() > from) || isPagedBusiness(atom.code))
            continue;
        const auto found = std::find_if(at, there.end(), [&](const Atom& one) {
            return one.bytes == atom.bytes && (isAnyContext || one.tick == kUnknown64 ||
                                               (one.tick == atom.tick && one.ip == atom.ip && one.place == atom.place));
        });
        if (found == there.end())
            lost += std::to_string(atom.offset) + ": " + hex(std::string(atom.bytes)) + "\n";
        else
            at = found + 1;
    }
    return lost;
}

/// A trace with packets of many sorts, as programs and targets record them.
std::string recording(bool isPaged, bool isRelative, std::uint64_t size, unsigned seed = 1) {
    RandomPackets random(seed);
    MemorySink sink;
    CTraceWriterPlain plain(sink);
    CTraceWriterPaged paged(sink);
    CTraceSinkEx& writer = isPaged ? static_cast<CTraceSinkEx&>(paged) : plain;
    CTraceCompressor compressor(writer);
    CTraceSink& to = isRelative ? static_cast<CTraceSink&>(compressor) : writer;
    const auto put = [&to](CPacket* packet) {
        to.forward(packet);
        delete packet; // which some sinks leave with the caller
    };
    std::uint64_t tick = 1234567890123;
    put(new CTraceEnabled(kUnknown64, NotExpanded, false));
    put(new CTimestamp(tick, std::uint64_t{1000000000}));
    while (writer.tellp() < size) {
        tick += random.below(40);
        const CCoreContext core(tick, random.below(2), 4711, 0x400000 + random.below(300));
        const CBusContext bus(tick, 1, random.below(3));
        const std::uint32_t id = 0x1000 + random.below(20);
        switch (random.below(14)) {
        case 0:
            put(new CFunctionDefine(core, id, ("function " + std::to_string(id)).c_str()));
            break;
        case 1:
            put(new CCharString("a text"));
            break;
        case 2:
            put(new CVariableWrite(core, id, CData(std::uint16_t(random.below(0x10000)))));
            break;
        case 3:
            put(new CProcessEnter(core, id));
            break;
        case 4:
            put(new CBusAddrData(bus, BusAccRead, 0x20000000 + random.below(0x1000), CData(std::uint32_t(id))));
            break;
        case 5:
            put(new CSystemData(CSystemContext(tick, 3, 4), CData(std::uint32_t(id))));
            break;
        case 6:
            put(new CExecInsn(core));
            break;
        default:
            put(random.below(2) ? static_cast<CPacket*>(new CFunctionEnter(core, id)) : new CFunctionLeave(core, id));
        }
    }
    put(new CTraceDisabled);
    put(new CEndOfTrace);
    writer.flush();
    if (!isPaged) { // the plain writer knows no frames
        const std::uint64_t length = sink.bytes.size() - 2;
        std::memcpy(sink.bytes.data() + 6, &length, sizeof length);
    }
    return sink.bytes;
}

class TraceRepair : public testing::TestWithParam<std::pair<bool, bool>> {
protected:
    std::string recording(std::uint64_t size, unsigned seed = 1) const {
        return test::recording(GetParam().first, GetParam().second, size, seed);
    }
};
INSTANTIATE_TEST_SUITE_P(AllForms, TraceRepair,
                         testing::Values(std::pair(false, false), std::pair(false, true), std::pair(true, false),
                                         std::pair(true, true)));

TEST_P(TraceRepair, LeavesAWholeTraceAsItIs) {
    // More than is looked at at a time.
    for (const unsigned size : {0U, 1000U, 3 * kPageSize, 18 * kPageSize}) {
        const std::string trace = recording(size);
        const Repaired result = repaired(trace);
        EXPECT_EQ(result.notes, "");
        EXPECT_EQ(result.report.isPaged, GetParam().first && size > kPageSize);
        EXPECT_TRUE(result.trace == trace) << size;
    }
}

/// Whether packets follow each other to the end: damage that leaves this cannot be seen, but in texts.
bool isLegal(const std::string& trace) {
    const std::vector<Atom> atoms = atomsOf(trace);
    return !atoms.empty() && atoms.back().offset + atoms.back().bytes.size() == trace.size();
}

TEST_P(TraceRepair, LosesNothingButWhatOneDamagedByteStandsIn) {
    const std::string whole = recording(450);
    const std::vector<Atom> original = atomsOf(whole);
    const std::size_t apart = isThorough() ? 1 : effort(2, 3); // each byte has some of the values
    for (std::size_t at = 0; at < whole.size(); ++at) {
        const auto old = static_cast<unsigned char>(whole[at]);
        const auto atom = std::find_if(original.begin(), original.end(),
                                       [at](const Atom& one) { return at < one.offset + one.bytes.size(); });
        const unsigned values[] = {old ^ 0x01U, old ^ 0x80U, 0, 0xFF, (old + 30U) & 0xFF, 0x7E};
        for (std::size_t i = at % apart; i < std::size(values); i += apart) {
            const unsigned value = values[i];
            std::string damaged = whole;
            damaged[at] = static_cast<char>(value);
            const bool isSeen = !isLegal(damaged);
            const bool isSwallowed = !isSeen && at == atom->offset + 1 && atom->code != CharString;
            const Repaired result = repaired(damaged);
            std::string lost = lostIn(original, result.trace, at, isSwallowed ? at + 1 + value : at + 1, !isSeen);
            if (at == 0 && lost.ends_with(": 7a 00\n")) // the end of a frame that seems not to have begun
                lost.clear();
            EXPECT_EQ(lost + newFaults(result.trace, damaged), "")
                << at << " is " << value << " in " << hex(std::string(atom->bytes)) << " at " << atom->offset << "\n"
                << result.notes;
            EXPECT_TRUE(damaged == whole || isLegal(damaged) || result.report.isLossy) << at << " is " << value;
            EXPECT_TRUE(repaired(result.trace).trace == result.trace) << at << " is " << value;
        }
    }
}

TEST_P(TraceRepair, LosesNothingButTheEndOfACutTrace) {
    const std::string whole = recording(900);
    const std::vector<Atom> original = atomsOf(whole);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Repaired result = repaired(whole.substr(0, size));
        EXPECT_EQ(lostIn(original, result.trace, size, whole.size()), "") << size;
        EXPECT_EQ(newFaults(result.trace, ""), "") << size;
        if (size >= 18 && size != whole.size() - 2) { // the last packet is one that may be
            EXPECT_EQ(result.trace.substr(result.trace.size() - 4), bytes("7a 00 7c 00")) << size;
            EXPECT_EQ(result.report.isLossy, size != whole.size()) << size;
        }
        EXPECT_TRUE(repaired(result.trace).trace == result.trace) << size;
    }
}

TEST_P(TraceRepair, LosesNothingButTheBeginningOfATrace) {
    const std::string whole = recording(900);
    const std::vector<Atom> original = atomsOf(whole);
    for (std::size_t from = 1; from + 60 < whole.size(); ++from) {
        const Repaired result = repaired(whole.substr(from));
        // What tells no tick may be lost before the first packet that does.
        const auto first = std::find_if(original.begin(), original.end(), [from](const Atom& atom) {
            return atom.offset >= from && sortOfFull(atom.code) != ContextSort::None;
        });
        std::string lost = lostIn(original, result.trace, 0, first->offset);
        if (lost.ends_with(": 7a 00\n")) // the end of a frame that seems not to have begun
            lost.clear();
        EXPECT_EQ(lost + newFaults(result.trace, whole.substr(from)), "") << from << "\n" << result.notes;
    }
}

TEST_P(TraceRepair, LosesNothingButPagesThatAreGone) {
    if (!GetParam().first)
        return;
    const std::string whole = recording(3 * kPageSize);
    const std::vector<Atom> original = atomsOf(whole);
    for (std::size_t page = 0; page < 3; ++page) {
        std::string damaged = whole;
        damaged.replace(page * kPageSize, kPageSize, kPageSize, "\0\xFF\x55"[page]);
        const Repaired erased = repaired(damaged);
        EXPECT_TRUE(erased.report.isPaged);
        EXPECT_EQ(lostIn(original, erased.trace, page * kPageSize, (page + 1) * kPageSize), "") << page;
        EXPECT_EQ(newFaults(erased.trace, ""), "") << page;
        EXPECT_EQ(erased.report.uncertain, 0) << page;
        std::string swapped = whole;
        const std::size_t other = (page + 1) % 3;
        for (std::size_t i = 0; i < kPageSize; ++i)
            std::swap(swapped[page * kPageSize + i], swapped[other * kPageSize + i]);
        const Repaired result = repaired(swapped);
        EXPECT_EQ(
            lostIn(original, result.trace, std::min(page, other) * kPageSize, (std::max(page, other) + 1) * kPageSize),
            "");
        EXPECT_EQ(newFaults(result.trace, ""), "") << page;
    }
}

/// What packets are relative to changes, and they follow; what told it is made unreadable by `damage`.
struct DamagedSync {
    std::string whole, damaged;
    std::size_t from = 0, to = 0; ///< the bytes that are damaged

    template <class Damage> void damage(tagTCode sync, unsigned length, std::size_t behind, Damage damage) {
        const std::size_t at = whole.find({static_cast<char>(sync), static_cast<char>(length)}, behind);
        ASSERT_NE(at, std::string::npos);
        damaged = damaged.empty() ? whole : damaged;
        from = to == 0 ? at : from;
        to = at + 2 + length;
        damage(damaged.data() + at, 2 + length);
    }
    std::string lost(const Repaired& result) const { return lostIn(atomsOf(whole), result.trace, from, to); }
};

TEST(TraceRepairing, LosesNothingWhereTheNextPageMustBeReadFirst) {
    const CCoreContext before(1000, 1, 4711, 0x400000), core(1U << 20, 1, 4711, 0x400000);
    const CBusContext busBefore(1000, 1, 2), bus(1U << 20, 1, 2);
    for (const bool isTwice : {false, true}) {
        MemorySink sink;
        CTraceWriterPaged writer(sink);
        CTraceCompressor to(writer);
        const auto put = [&to](CPacket* packet) {
            to.forward(packet);
            delete packet; // which some sinks leave with the caller
        };
        const auto putPages = [&](unsigned pages) {
            const std::string text(pages::kFittingText, 'a');
            for (const std::uint64_t end = writer.tellp() + pages * kPageSize; writer.tellp() < end;)
                put(new CCharString(text.c_str()));
        };
        put(new CTraceEnabled(kUnknown64, NotExpanded, false));
        put(new CExecInsn(before));
        put(new CBusAddrData(busBefore, BusAccRead, 0x20000000, CData(std::uint32_t{1})));
        putPages(16);
        const auto behind = static_cast<std::size_t>(writer.tellp());
        put(new CSync(core));
        for (unsigned i = 0; i < 3; ++i) // so that what is between two places is not taken for damage, too
            put(new CTimestamp(1U << 20, std::uint64_t{1000000000}));
        put(new CFunctionDefine(core, 0x1000, ""));
        if (isTwice)
            put(new CBusAddrData(bus, BusAccRead, 0x20000000, CData(std::uint32_t{2})));
        put(new CFunctionEnter(core, 0x1000));
        putPages(20);
        put(new CTraceDisabled);
        put(new CEndOfTrace);
        writer.flush();
        DamagedSync sync{sink.bytes, {}};
        const auto damage = [](char* bytes, std::size_t) { bytes[0] = static_cast<char>(TraceDisabled); };
        sync.damage(Sync, CCoreContext::Len(), behind, damage);
        if (isTwice)
            sync.damage(BusSync, CBusContext::Len(), behind, damage);
        const Repaired result = repaired(sync.damaged);
        EXPECT_EQ(sync.lost(result), "") << result.notes;
        EXPECT_EQ(result.report.places, isTwice ? 2 : 1) << result.notes;
        EXPECT_EQ(result.report.uncertain, isTwice ? 2 : 0) << result.notes;
    }
}

TEST(TraceRepairing, TellsNoTimeThatAPacketMadeLongerMayHaveChanged) {
    const CCoreContext before(1000, 1, 4711, 0x400000), core(1U << 20, 1, 4711, 0x400000);
    for (const bool isOfPacket : {false, true}) {
        MemorySink sink;
        CTraceWriterPlain writer(sink);
        CTraceCompressor to(writer);
        const auto put = [&to](CPacket* packet) {
            to.forward(packet);
            delete packet; // which some sinks leave with the caller
        };
        put(new CTraceEnabled(kUnknown64, NotExpanded, false));
        put(new CFunctionEnter(before, 0x1000));
        if (isOfPacket)
            put(new CFunctionDefine(before, 0x1000, "a text"));
        else
            put(new CCharString("a text"));
        const auto behind = static_cast<std::size_t>(writer.tellp());
        for (unsigned i = 0; i < 4; ++i)
            put(new CFunctionLeave(core, 0x1000));
        put(new CTraceDisabled);
        put(new CEndOfTrace);
        writer.flush();
        DamagedSync sync{sink.bytes, {}};
        sync.damage(Sync, CCoreContext::Len(), behind,
                    [](char* bytes, std::size_t length) { std::memset(bytes, 0xFF, length); });
        --sync.from; // the text before it is made longer
        const Repaired result = repaired(sync.damaged);
        EXPECT_EQ(sync.lost(result), "") << result.notes;
        EXPECT_NE(result.notes.find("CharString damage: announces 6 bytes, of which it has 32"), std::string::npos)
            << result.notes;
        EXPECT_EQ(result.report.uncertain, 4) << result.notes;
    }
}

TEST(TraceSearch, FindsTracesInOtherBytesAndNothingElse) {
    RandomPackets random(3);
    const std::string first = recording(false, false, 3000), second = recording(true, true, 2 * kPageSize, 2);
    const std::string cut = first.substr(0, 1000);
    // Records of one size, as in tables of symbols, are packets with ticks by chance.
    std::string table;
    for (unsigned i = 0; i < 3000; ++i)
        table += (i % 2 ? bytes("d5 16") : bytes("d4 16")) + std::string(1, static_cast<char>(i / 256)) +
                 bytes("00 00 00 00 2a 00 00 00 00 00 00 00 00 00 00 00 00 02 00 0f 00 6a");
    const std::string noise = random.bytes(100000), zeros(3 * kPageSize, '\0');
    const std::string image = noise + first + zeros + table + second + noise.substr(7) + cut;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> found;
    MemorySource source(image);
    findTraces(source, "image", [&found](const FoundTrace& trace) { found.emplace_back(trace.offset, trace.size); });
    const std::size_t at = noise.size() + first.size() + zeros.size() + table.size();
    ASSERT_EQ(found.size(), 3);
    EXPECT_EQ(found[0], std::pair(std::uint64_t{noise.size()}, std::uint64_t{first.size()}));
    EXPECT_EQ(found[1], std::pair(std::uint64_t{at}, std::uint64_t{second.size()}));
    EXPECT_EQ(found[2].first, image.size() - cut.size());
    RepairOptions options;
    options.from = found[1].first;
    options.to = found[1].first + found[1].second;
    EXPECT_TRUE(repaired(image, options).trace == second);
}

TEST(TraceRepairing, FailsWhereReadingOrWritingDoes) {
    const std::string trace = recording(true, false, 3 * kPageSize);
    MemorySink full;
    full.room = kPageSize + 100;
    MemorySource good(trace);
    const RepairReport report = repairTrace(good, full, {}, [](const RepairNote&) {});
    EXPECT_FALSE(report.isWritten);
    std::istringstream stream(trace);
    stream.rdbuf()->pubseekpos(0);
    CTraceSourceBufferStream source(stream);
    stream.setstate(std::ios::badbit);
    MemorySink sink;
    EXPECT_EQ(thrownBy([&] { repairTrace(source, sink, {.name = "a.qvx"}, [](const RepairNote&) {}); }).substr(0, 7),
              "a.qvx: ");
}

} // namespace
} // namespace Quorvex::test
