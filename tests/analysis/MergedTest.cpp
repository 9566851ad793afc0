#include "quorvex/analysis/Merged.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/format/Exception.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/PageFormat.h"
#include "tests/support/FailingStream.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/ShortMemory.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Quorvex::test {
namespace {

constexpr unsigned kPackets = 200;

/// A trace of functions at the ticks 1000 * i + of, the last of which are far apart.
std::string traceOf(std::uint32_t thread, std::uint64_t of, std::uint64_t wrongAt = kPackets) {
    std::string trace;
    for (std::uint64_t i = 0; i < kPackets; ++i) {
        const std::uint64_t tick = i == wrongAt ? 1'000'000'000'000 : 1000 * i + of;
        CFunctionEnter packet(CCoreContext(tick, 0, thread, 0), static_cast<std::uint32_t>(i));
        trace += wireOf(packet);
    }
    return trace;
}

/// Merges so many files; what is wrong with the packets that come, or nothing.
std::string merge(const TemporaryDirectory& directory, unsigned files, Merged& merged) {
    for (unsigned file = 0; file < files; ++file)
        merged.add(std::make_unique<TraceFile>(directory.path(std::to_string(file))));
    std::vector<std::uint32_t> next(files);
    std::uint64_t last = 0, count = 0;
    std::size_t lastFile = 0;
    while (const auto packet = merged.next()) {
        const auto& enter = dynamic_cast<const CFunctionEnter&>(*packet);
        const std::size_t file = merged.file();
        const std::uint64_t tick = enter.Tick() == kUnknown64 ? last : enter.Tick();
        if (enter.SWCtx() != file || enter.TgtFuncId() != next[file]++)
            return "a packet of another file, or another place in it";
        if (merged.tick() != enter.Tick())
            return "another tick";
        if (merged.offset() != std::uint64_t{enter.TgtFuncId()} * packet->StreamSize())
            return "another offset";
        if (tick < last || (tick == last && file < lastFile && enter.Tick() != kUnknown64))
            return "not in the order of time, then of files";
        last = tick;
        lastFile = file;
        ++count;
    }
    return count == std::uint64_t{files} * kPackets ? "" : "packets are missing";
}

TEST(Merged, OpensNoMoreThanSomeOfManyFiles) {
    constexpr unsigned kFiles = 300;
    const TemporaryDirectory directory;
    for (unsigned file = 0; file < kFiles; ++file)
        std::ofstream(directory.path(std::to_string(file)), std::ios::binary) << traceOf(file, file * 7 % 500 / 3 * 3);
    // The order in which the same file would come if all were open is that of the ticks, whatever the number of files.
    for (const unsigned files : {1U, 64U, 65U}) {
        Merged merged;
        EXPECT_EQ(merge(directory, files, merged), "") << files;
    }
    const auto inChild = [&] {
        Merged merged;
        const bool isLimited = limitOpenFiles(32);
        const std::string wrong = isLimited ? merge(directory, kFiles, merged) : "";
        std::fputs(wrong.c_str(), stderr);
        std::_Exit(wrong.empty() ? 0 : 1);
    };
    if (isPosix()) {
        EXPECT_EQ(fork(inChild, [] {}), 0);
    }
    Merged merged;
    EXPECT_EQ(merge(directory, kFiles, merged), "");
}

TEST(Merged, TellsWrongTicksHoweverManyFilesThereAre) {
    for (const unsigned files : {1U, 70U}) {
        const TemporaryDirectory directory;
        for (unsigned file = 0; file < files; ++file)
            std::ofstream(directory.path(std::to_string(file)), std::ios::binary)
                << traceOf(file, file, file == 0 ? 50 : kPackets);
        Merged merged;
        EXPECT_EQ(merge(directory, files, merged), "");
        EXPECT_EQ(merged.report(0).wrongTicks, 1U);
        EXPECT_EQ(merged.report(0).firstWrongTick, 50U * 30);
        EXPECT_TRUE(merged.report(0).isLossy());
        EXPECT_EQ(merged.report(files - 1).wrongTicks, files == 1 ? 1U : 0U);
    }
}

/// Of calls in the first trace.
struct Delay : PacketChange {
    void change(std::size_t file, CPacket& packet) override {
        auto* enter = packetAs<CFunctionEnter>(packet);
        if (enter && file == 0 && enter->Tick() != kUnknown64)
            enter->Tick(enter->Tick() + 10'500);
    }
};

TEST(Merged, PlacesPacketsByTicksThatWereChanged) {
    std::istringstream first(traceOf(0, 0)), second(traceOf(1, 0, 50));
    Merged merged;
    merged.add(std::make_unique<TraceFile>("first", &first));
    merged.add(std::make_unique<TraceFile>("second", &second));
    Delay delay;
    merged.changeBy(delay);
    std::vector<std::uint64_t> ticks;
    for (std::uint64_t last = 0, count = 0; const auto packet = merged.next(); ++count) {
        const auto& enter = dynamic_cast<const CFunctionEnter&>(*packet);
        EXPECT_EQ(merged.tick(), enter.Tick());
        if (enter.Tick() == kUnknown64)
            continue;
        EXPECT_EQ(enter.Tick(), 1000 * enter.TgtFuncId() + (merged.file() == 0 ? 10'500 : 0));
        EXPECT_GE(enter.Tick(), last);
        last = enter.Tick();
        ticks.push_back(last);
    }
    EXPECT_EQ(ticks.size(), 2 * kPackets - 1);
    EXPECT_EQ(merged.report(1).wrongTicks, 1U);
}

TEST(Merged, LeavesDefinitionsTheirOldTicksIfAskedTo) {
    for (const bool keeps : {false, true}) {
        std::istringstream stream(wireOf(*std::make_unique<CFunctionEnter>(CCoreContext(50, 0, 0, 0), 1)) +
                                  wireOf(*std::make_unique<CFunctionDefine>(CCoreContext(7, 0, 0, 0), 1, "f")));
        Merged merged;
        merged.add(std::make_unique<TraceFile>("stream", &stream));
        if (keeps)
            merged.keepOldTicks();
        Delay delay;
        merged.changeBy(delay);
        merged.next();
        const auto packet = merged.next();
        EXPECT_EQ(dynamic_cast<const CFunctionDefine&>(*packet).Tick(), keeps ? 7 : kUnknown64);
        EXPECT_EQ(merged.tick(), kUnknown64);
    }
}

TEST(Merged, LooksLittleAheadWhereOnlyDefinitionsFollow) {
    std::string trace;
    for (std::uint64_t i = 0; i < 8 * kPackets; ++i)
        trace += wireOf(*std::make_unique<CFunctionDefine>(CCoreContext(1000 * i, 0, 0, 0), 1, ""));
    std::istringstream stream(trace);
    Merged merged;
    merged.add(std::make_unique<TraceFile>("stream", &stream));
    for (std::uint64_t count = 0; const auto packet = merged.next(); ++count) {
        EXPECT_EQ(dynamic_cast<const CFunctionDefine&>(*packet).Tick(), 1000 * count);
        EXPECT_LT(merged.trace(0).offset() - merged.offset(), 130 * packet->StreamSize());
    }
    EXPECT_EQ(merged.report(0).wrongTicks, 0U);
}

TEST(Merged, GoesOnBehindAFileThatFails) {
    const TemporaryDirectory directory;
    for (const std::size_t gone : {std::size_t{0}, std::size_t{1}, std::size_t{69}}) {
        for (const std::size_t files : {std::size_t{2}, std::size_t{70}}) {
            Merged merged;
            for (std::size_t file = 0; file < files; ++file) {
                const std::string path = directory.path(std::to_string(file));
                std::ofstream(path, std::ios::binary) << traceOf(static_cast<std::uint32_t>(file), file);
                merged.add(std::make_unique<TraceFile>(path));
            }
            std::filesystem::remove(directory.path(std::to_string(gone % files)));
            std::size_t count = 0, errors = 0;
            for (bool isAtEnd = false; !isAtEnd;) {
                try {
                    isAtEnd = !merged.next();
                    count += !isAtEnd;
                } catch (const TraceError&) {
                    ++errors;
                }
            }
            EXPECT_EQ(errors, 1U) << gone;
            EXPECT_EQ(count, (files - 1) * kPackets) << gone;
        }
    }
}

TEST(Merged, HandsOutAllThatItHasReadBeforeAFailure) {
    // At its begin a trace is looked into up to 4096 packets ahead.
    std::string trace;
    while (trace.size() < kPageSize + 1000)
        trace += wireOf(*std::make_unique<CFunctionEnter>(CCoreContext(5, 0, 0, 0), 1));
    trace.insert(kPageSize / 30 * 30 - 30 * 1000, wireOf(*std::make_unique<CTraceEnabled>()));
    FailingStream stream(trace);
    Merged merged;
    merged.add(std::make_unique<TraceFile>("stream", &stream));
    std::size_t count = 0;
    EXPECT_THROW(while (merged.next())++ count, TraceError);
    EXPECT_EQ(count, (kPageSize - 18) / 30);
    EXPECT_FALSE(merged.next());
}

TEST(Merged, TakesNoLackOfMemoryForTheEnd) {
    const std::string trace = bytes("7f 18") + std::string(24, '\1') + bytes("82 06 03 00 01 00 00 00") +
                              wireOf(*std::make_unique<CFunctionEnter>(CCoreContext(5, 0, 0, 0), 1)) +
                              bytes("83 06 04 00 01 00 00 00");
    unsigned number = 0;
    bool came = true;
    const auto merge = [&] {
        std::istringstream stream(trace);
        Merged merged;
        merged.add(std::make_unique<TraceFile>("stream", &stream));
        unsigned packets = 0;
        bool isTold = false;
        {
            const ShortMemory shortage(number);
            try {
                while (merged.next())
                    ++packets;
            } catch (const std::exception& exception) {
                isTold = isOutOfMemory(exception);
            }
            came = shortage.came();
        }
        EXPECT_TRUE(isTold ? came : packets == 3) << number;
    };
    while (came) {
        std::thread(merge).join(); // which has no memory kept from what was before
        ++number;
    }
    EXPECT_GT(number, 5U);
}

} // namespace
} // namespace Quorvex::test
