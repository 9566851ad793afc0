#include "quorvex/instrument/InstrumentingStream.h"

#include "quorvex/platform/System.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

using Variables = std::vector<std::pair<std::string, std::string>>;

/// A run of the recording program in a directory of its own, which has an empty directory `sub`.
struct Recording {
    TemporaryDirectory directory;
    int status;
    std::map<unsigned, unsigned> told; ///< enters by thread, as the program counted them

    explicit Recording(const std::string& mode, Variables settings = {}) {
        std::filesystem::create_directory(directory.path("sub"));
        settings.insert(settings.begin(), {{"QVX_TRACEDIR", "."}, {"QVX_TRACEFILENAME", ""}, {"QVX_TRACEMODE", ""}});
        status = run({QUORVEX_RECORDER, {mode}, directory.path().string(), settings});
        std::istringstream lines(directory.content("told"));
        for (unsigned thread = 0, enters = 0; lines >> thread >> enters;)
            told[thread] += enters;
    }

    std::vector<std::string> traces() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
            if (entry.path().extension() == ".qvx")
                names.push_back(entry.path().filename().string());
        }
        return names;
    }
};

struct Trace {
    std::vector<tagTCode> codes;
    std::set<unsigned> threads;
    std::map<unsigned, std::string> names;
    unsigned enters = 0;
    unsigned leaves = 0;
    std::uint64_t frequency = 0;
    bool whole = false; ///< framed, ticks in order, nothing left over

    explicit Trace(const std::string& path) {
        CTraceSourceBufferFile file;
        file.open(path.c_str());
        CTraceReaderPlain reader(file);
        std::uint64_t lastTick = 0;
        bool ordered = true;
        while (const PacketPointer packet{reader.get()}) {
            codes.push_back(packet->TraceCode());
            enters += packet->TraceCode() == FunctionEnter;
            leaves += packet->TraceCode() == FunctionLeave;
            if (const auto* timestamp = dynamic_cast<CTimestamp*>(packet.get()))
                frequency = timestamp->Frequency();
            if (const auto* define = dynamic_cast<CFunctionDefine*>(packet.get()))
                ordered = names.emplace(define->FuncId(), define->FuncDef().view()).second && ordered;
            if (const auto* context = dynamic_cast<CCoreContext*>(packet.get())) {
                threads.insert(context->SWCtx());
                ordered = ordered && context->Tick() >= lastTick;
                lastTick = context->Tick();
            }
        }
        const std::size_t count = codes.size();
        whole = ordered && count >= 4 && codes[0] == TraceEnabled && codes[1] == Timestamp &&
                codes[count - 2] == TraceDisabled && codes[count - 1] == EndOfTrace &&
                reader.position() == std::filesystem::file_size(path);
    }
};

/// The settings under which a recording must come out the same.
const Variables kModes[] = {{{"QVX_TRACEMODE", ""}}, {{"QVX_TRACEMODE", "mapped"}}};

/// Every file is whole and holds one thread, the one in its name; with `exact`, just what that thread recorded.
void expectTraces(const Recording& run, bool exact) {
    EXPECT_EQ(run.status, 0);
    std::set<unsigned> seen;
    for (const std::string& name : run.traces()) {
        const unsigned thread = static_cast<unsigned>(std::stoul(name.substr(7)));
        EXPECT_EQ(name, "thread_" + std::to_string(thread) + ".qvx");
        const Trace trace(run.directory.path(name));
        EXPECT_TRUE(trace.whole) << name;
        EXPECT_TRUE(trace.threads.empty() || trace.threads == std::set{thread}) << name;
        EXPECT_GT(trace.frequency, 0U);
        if (!exact)
            continue;
        EXPECT_EQ(trace.enters, trace.leaves) << name;
        EXPECT_TRUE(run.told.contains(thread)) << name;
        EXPECT_EQ(trace.enters, run.told.contains(thread) ? run.told.at(thread) : 0) << name;
        seen.insert(thread);
    }
    if (exact) {
        EXPECT_EQ(seen.size(), run.told.size());
    }
}

TEST(InstrumentingStream, GivesEveryThreadAFileOfItsOwn) {
    for (const Variables& mode : kModes) {
        const Recording run("threads", mode);
        expectTraces(run, true);
        EXPECT_EQ(run.traces().size(), 3U);
    }
}

TEST(InstrumentingStream, GoesOnInTheFileOfAThreadWhoseNumberIsGivenAgain) {
    for (const Variables& mode : kModes)
        expectTraces(Recording("shortLived", mode), true);
}

TEST(InstrumentingStream, CompletesAllFilesWhenTheProgramEndsWhileThreadsRun) {
    for (unsigned i = 0; i < 10; ++i) {
        const Recording run("running", kModes[i % 2]);
        expectTraces(run, false);
        EXPECT_EQ(run.traces().size(), 5U);
    }
}

TEST(InstrumentingStream, LeavesTheParentsFilesAloneInAForkedChild) {
    if (!isPosix())
        GTEST_SKIP() << "processes do not fork here";
    for (const Variables& mode : kModes) {
        const Recording threads("forkedWithThreads", mode);
        expectTraces(threads, true);
        EXPECT_EQ(threads.traces().size(), 1U + 3 * 2);
        const Recording busy("forkedWhileBusy", mode);
        expectTraces(busy, true);
        EXPECT_EQ(busy.traces().size(), 2U + 3);
        expectTraces(Recording("execed", mode), true);
    }
}

TEST(InstrumentingStream, RefusesQuietlyWhereNothingCanBeWrittenAndReportsAFullDiskOnce) {
    for (Variables mode : kModes) {
        if (hasFullDevice()) {
            EXPECT_EQ(Recording("full", mode).status, 0);
        }
        mode.emplace_back("QVX_TRACEDIR", "/nonexistent/directory");
        EXPECT_EQ(Recording("unwritable", mode).status, 0);
    }
}

TEST(InstrumentingStream, LeavesTheSameFileInMappedMode) {
    std::string contents[2];
    for (unsigned i = 0; i < 2; ++i) {
        const Recording run("seeking", kModes[i]);
        EXPECT_EQ(run.status, 0);
        ASSERT_EQ(run.traces().size(), 1U);
        contents[i] = run.directory.content(run.traces()[0]);
    }
    // Only the timestamp's tick differs.
    constexpr std::size_t kTick = 18 + 2;
    ASSERT_GT(contents[0].size(), std::size_t{2 * kPageSize});
    contents[0].replace(kTick, 8, contents[1], kTick, 8);
    EXPECT_TRUE(contents[0] == contents[1]);
    EXPECT_EQ(Recording("unknownMode", {{"QVX_TRACEMODE", "mmap"}}).status, 0);
}

TEST(InstrumentingStream, HoldsFourPacketsForAThreadThatDoesNothing) {
    const Recording run("nothing", {{"QVX_TRACEFILENAME", "run_"}});
    ASSERT_EQ(run.traces().size(), 1U);
    EXPECT_TRUE(run.traces()[0].starts_with("run_"));
    const Trace trace(run.directory.path(run.traces()[0]));
    EXPECT_EQ(trace.codes, (std::vector<tagTCode>{TraceEnabled, Timestamp, TraceDisabled, EndOfTrace}));
}

TEST(InstrumentingStream, DefinesAFunctionOnce) {
    const Recording run("twice");
    EXPECT_EQ(run.status, 0);
    ASSERT_EQ(run.traces().size(), 1U);
    const Trace trace(run.directory.path(run.traces()[0]));
    EXPECT_EQ(trace.names, (std::map<unsigned, std::string>{{1, "f"}, {2, "g"}}));
    EXPECT_EQ(trace.codes.size(), 6U);
}

TEST(InstrumentingStream, IsGoneForStaticObjectsThatAreDestroyedLate) {
    expectTraces(Recording("late"), true);
}

TEST(InstrumentingStream, LooksForItsDirectoryInTheEnvironment) {
    std::vector<const char*> names = {"QVX_TRACEDIR", "TEMP", "TMP"};
    if (!platform::defaultTemporaryDirectory().empty())
        names.push_back("TMPDIR"); // where the system's own directory is looked for there
    for (const std::string asked : names) {
        // Those that come before it are empty, those behind it lead nowhere.
        Variables settings;
        const char* value = "";
        for (const char* name : names) {
            settings.emplace_back(name, name == asked ? "sub" : value);
            value = name == asked ? "/nonexistent" : value;
        }
        const Recording run("nothing", settings);
        EXPECT_EQ(run.status, 0);
        EXPECT_FALSE(std::filesystem::is_empty(run.directory.path("sub"))) << asked;
    }
}

/// What the map asks of a stream.
struct Stream {
    bool mayGo;
    unsigned& gone;
    bool retire() const { return mayGo; }
    ~Stream() { ++gone; }
};

TEST(ThreadInstanceMap, OwnsItsStreamsAndEndsThemAll) {
    unsigned gone = 0;
    Stream running{false, gone};
    ThreadInstanceMap<Stream> map;
    EXPECT_TRUE(map.insert(5, new Stream{true, gone}) && map.insert(6, &running));
    EXPECT_FALSE(map.insert(5, &running) || map.insert(7, nullptr));
    EXPECT_TRUE(map(6) == &running && !map(7));
    map.close();
    EXPECT_EQ(gone, 1U) << "one whose thread runs stays";
    EXPECT_TRUE(map.closed() && !map.insert(8, &running));
}

} // namespace
} // namespace Quorvex::test
