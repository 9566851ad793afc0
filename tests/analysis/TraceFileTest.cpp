#include "quorvex/analysis/TraceFile.h"

#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/ReadWatch.h"
#include "tests/support/Doubles.h"
#include "tests/support/FailingStream.h"
#include "tests/support/Samples.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Quorvex::test {
namespace {

/// A line a packet: where it begins and ends, and its bytes; then how the file ends.
std::string packetsIn(
    TraceFile& file, const std::function<void()>& between = [] {}) {
    std::ostringstream out;
    while (const auto packet = file.next()) {
        out << file.offset() << ' ' << file.end() << ' ' << hex(wireOf(*packet)) << '\n';
        between();
    }
    EXPECT_FALSE(file.next());
    const TraceReport& report = file.report();
    out << file.size() << " bytes, end " << int(report.end) << " at " << report.endOffset << " in " << report.cutKind
        << ", damage " << report.damage.places << ' ' << report.damage.bytes << ' ' << report.damage.first;
    return out.str();
}

/// All samples, with bytes of no packet between some of them.
std::string damagedTrace() {
    std::string trace;
    for (const Sample& sample : samples())
        trace += bytes(sample.wire) + (sample.name.starts_with("Event") ? "\x06\x02yz" : "");
    return trace;
}

TEST(TraceFile, GoesOnWhereItWasPaused) {
    const TemporaryDirectory directory;
    const std::string trace = damagedTrace();
    std::ostringstream table;
    CPacketPlain plain(table, true, 0);
    for (const Sample& sample : samples())
        plain.put(packetOf(bytes(sample.wire)).get());
    const std::string cases[] = {trace, trace + "\x10\x18" + "cut", table.str(), "",
                                 "\x79\x10" + std::string(16, '\0')};
    for (const std::string& content : cases) {
        const std::string path = directory.path("trace");
        std::ofstream(path, std::ios::binary) << content;
        TraceFile whole(path);
        const std::string expected = packetsIn(whole);
        for (const unsigned portion : {1U, 7U, 0x2000U}) {
            TraceFile paused(path);
            paused.readAtATime(portion);
            EXPECT_TRUE(paused.pause());
            EXPECT_EQ(packetsIn(paused, [&] { EXPECT_TRUE(paused.pause()); }), expected) << portion;
        }
        std::istringstream stream(content);
        TraceFile streamed("stream", &stream);
        EXPECT_FALSE(streamed.pause()) << "it cannot be gone back in";
        EXPECT_EQ(packetsIn(streamed), expected);
    }
}

TEST(TraceFile, TellsHowATraceEnds) {
    const TemporaryDirectory directory;
    const std::string begin = bytes("79 10") + std::string(16, '\0');
    const std::string end = bytes("7a 00");
    const std::string define = bytes("90 1c") + std::string(28, '\1');
    const std::string enter = bytes("92 1c") + std::string(28, '\1');
    const std::string run = begin + define + enter + define + enter; // enough to be known as a trace
    const std::string full = bytes("7e ff") + std::string(255, 'n');
    const std::tuple<std::string, TraceEnd, std::string> cases[] = {
        {"", TraceEnd::Empty, ""},
        {define, TraceEnd::NotMarked, ""},
        {begin + define + end, TraceEnd::Complete, ""},
        {define + bytes("7c 00"), TraceEnd::Complete, ""},
        {begin + define, TraceEnd::Missing, ""},
        {begin + define.substr(0, 20), TraceEnd::InPacket, "FunctionDefine"},
        {run + bytes("06 04 00"), TraceEnd::InPacket, ""},
        {begin + define + full, TraceEnd::InText, "FunctionDefine"},
        {begin + define + full.substr(0, 100), TraceEnd::InText, "FunctionDefine"},
    };
    for (const auto& [content, how, kind] : cases) {
        std::ofstream(directory.path("trace"), std::ios::binary) << content;
        TraceFile file(directory.path("trace"));
        EXPECT_EQ(file.report().end, TraceEnd::Unread);
        packetsIn(file);
        EXPECT_EQ(file.report().end, how) << hex(content);
        EXPECT_EQ(file.report().cutKind, kind) << hex(content);
        EXPECT_EQ(file.report().isLossy(), how >= TraceEnd::Missing);
    }
}

TEST(TraceFile, TellsWhatFramesLack) {
    const TemporaryDirectory directory;
    const std::string enter = bytes("92 1c") + std::string(28, '\1');
    std::string trace;
    for (const std::uint64_t lacking : {100, 0, 7}) { // in frames that go over several parts, and one that does not
        const std::size_t count = lacking > 0 ? 20'000 : 1;
        std::string length(16, '\0');
        storeLittleEndian(length.data() + 4, std::uint64_t{18 + count * enter.size() + 2 + lacking});
        trace += bytes("79 10") + length;
        for (std::size_t i = 0; i < count; ++i)
            trace += enter;
        trace += bytes("7a 00");
    }
    std::ofstream(directory.path("trace"), std::ios::binary) << trace;
    TraceFile one(directory.path("trace")), parts(directory.path("trace"));
    while (one.advance()) {
    }
    struct Nothing {
        void join(Nothing&&) {}
    } nothing;
    parts.walkInParts(nothing, [](Nothing&, const CTraceCursor&) {}, {3, kPageSize, 4});
    for (const TraceFile* file : {&one, &parts}) {
        EXPECT_EQ(file->report().lacking, 107U);
        EXPECT_EQ(file->report().end, TraceEnd::Complete);
        EXPECT_TRUE(file->report().isLossy());
    }
}

TEST(TraceFile, TellsAWatchOfWhatItReads) {
    struct Watch : ReadWatch {
        std::atomic<std::uint64_t> bytes = 0;
        void read(std::uint64_t more) override { bytes += more; }
    } ofFile, ofStream, ofParts;
    const TemporaryDirectory directory;
    std::string trace;
    while (trace.size() < 5 * kPageSize)
        trace += bytes("92 1c") + std::string(28, '\1');
    std::ofstream(directory.path("trace"), std::ios::binary) << trace;
    std::istringstream stream(trace);
    TraceFile file(directory.path("trace")), streamed("trace", &stream), parts(directory.path("trace"));
    file.watchBy(ofFile);
    streamed.watchBy(ofStream);
    parts.watchBy(ofParts);
    while (file.advance() && streamed.advance()) {
    }
    streamed.advance();
    EXPECT_EQ(ofFile.bytes, trace.size());
    EXPECT_EQ(ofStream.bytes, trace.size());
    std::set<std::thread::id> threads;
    std::mutex lock;
    struct Nothing {
        void join(Nothing&&) {}
    } nothing;
    parts.shareAmong(1);
    const auto look = [&](Nothing&, const CTraceCursor&) {
        const std::lock_guard guard(lock);
        threads.insert(std::this_thread::get_id());
    };
    parts.walkInParts(nothing, look, {0, kPageSize, 4});
    EXPECT_EQ(threads.size(), 1U);
    EXPECT_EQ(ofParts.bytes, trace.size());
}

TEST(TraceFile, ThrowsWhereItCannotGoOn) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("trace");
    EXPECT_EQ(thrownBy([&] { TraceFile file(path); }), path + ": No such file or directory");
    EXPECT_EQ(thrownBy([&] { TraceFile file(directory.path().string()); }),
              directory.path().string() + ": Is a directory");
    std::ofstream(path) << "This is a text.\n";
    EXPECT_EQ(thrownBy([&] { TraceFile file(path); }), path + ": does not look like a trace");
    std::ofstream(path, std::ios::binary) << damagedTrace();
    TraceFile file(path);
    EXPECT_TRUE(file.next());
    const std::string offset = std::to_string(file.end());
    EXPECT_TRUE(file.pause());
    std::filesystem::remove(path);
    EXPECT_EQ(thrownBy([&] { file.next(); }), path + ": offset " + offset + ": No such file or directory");
}

TEST(TraceFile, ThrowsWhereReadingFails) {
    const CCoreContext context(1, 0, 1, 0);
    CFunctionDefine define(context, 1, std::string(254, 'n').c_str());
    std::ostringstream table;
    CPacketPlain plain(table, true, 0);
    std::string trace;
    while (table.str().size() < 300'000) {
        plain.put(&define);
        trace += wireOf(define);
    }
    const std::string cases[] = {trace, trace + trace + trace, table.str()};
    for (const std::string& content : cases) {
        for (const std::size_t size : {0, 1000, 280'000, 280'001, 290'000}) {
            FailingStream stream(content.substr(0, size));
            std::uint64_t end = 0;
            const std::string error = thrownBy([&] {
                TraceFile file("stream", &stream);
                while (const auto packet = file.next()) {
                    end = file.end();
                    EXPECT_EQ(wireOf(*packet), wireOf(define));
                }
            });
            EXPECT_EQ(error, "stream: " + (end ? "offset " + std::to_string(end) + ": " : "") + "Input/output error");
            EXPECT_EQ(end > 0, std::min(size, content.size()) > kPageSize) << "the first bytes are read at once";
        }
    }
}

TEST(TraceSpan, LooksForTheClockNoFurtherThanItIsAskedTo) {
    std::string trace;
    for (unsigned i = 0; i < 4; ++i) {
        CExecInsn packet(CCoreContext(7 + i, 0, 1, 0));
        trace += wireOf(packet);
    }
    const std::uint64_t before = trace.size();
    CTimestamp clock(20, std::uint64_t{1000});
    trace += wireOf(clock);
    for (const auto& [within, frequency] : {std::pair{std::uint64_t{0}, 0U}, {before, 0U}, {before + 1, 1000U}}) {
        std::istringstream stream(trace);
        TraceFile file("trace", &stream);
        const TraceSpan span = TraceSpan::beginningOf(file, within);
        EXPECT_EQ(span.first, 7U);
        EXPECT_EQ(span.frequency, frequency) << within;
    }
}

} // namespace
} // namespace Quorvex::test
