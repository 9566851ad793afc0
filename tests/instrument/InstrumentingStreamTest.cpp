#include "quorvex/instrument/InstrumentingStream.h"

#include "quorvex/instrument/ThreadInstanceMap.h"
#include "quorvex/packets/SoftwareObjectPackets.h"
#include "quorvex/platform/Clock.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "tests/support/Effort.h"
#include "tests/support/NumberedPackets.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
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
        settings.insert(
            settings.begin(),
            {{"QVX_TRACEDIR", "."}, {"QVX_TRACEFILENAME", ""}, {"QVX_TRACEMODE", ""}, {"QVX_TRACECLOCK", ""}});
        status = run({QUORVEX_RECORDER, {mode}, directory.path().string(), settings});
        std::istringstream lines(directory.content("told"));
        for (unsigned thread = 0, enters = 0; lines >> thread >> enters;)
            told[thread] += enters;
    }

    std::vector<std::string> traces() const { return directory.files(".qvx"); }
};

struct Trace {
    std::vector<tagTCode> codes;
    std::set<unsigned> threads;
    std::map<unsigned, std::string> names;
    unsigned enters = 0;
    unsigned leaves = 0;
    unsigned numbered[2] = {}; ///< of the functions that are numbers, how many were entered and left without a gap
    unsigned messages = 0;
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
            messages += packet->TraceCode() == Message;
            if (const auto* function = dynamic_cast<CFunctionEnterPayload*>(packet.get());
                function && function->TgtFuncId() > kFirstNumber) {
                unsigned& last = numbered[packet->TraceCode() == FunctionLeave];
                ordered = function->TgtFuncId() == kFirstNumber + ++last && ordered;
            }
            if (const auto* timestamp = dynamic_cast<CTimestamp*>(packet.get()))
                frequency = timestamp->Frequency();
            if (const auto* define = dynamic_cast<CFunctionDefine*>(packet.get()))
                names.emplace(define->FuncId(), define->FuncDef().view());
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

TEST(InstrumentingStream, GivesEveryThreadAFileThatHoldsJustWhatItRecorded) {
    const struct {
        const char* program;
        unsigned files; ///< 0: any number
    } cases[] = {{"threads", 3},
                 {"shortLived", 0},                // may go on in the file of a thread whose number is given again
                 {"resumed", 2},                   // does
                 {"forkedWithThreads", 1 + 3 * 2}, // the parent's files are left alone in a child
                 {"forkedWhileBusy", 2 + 3},
                 {"forkedWhileInterrupted", 1},
                 {"execed", 0},
                 {"closing", 0}, // opens its files again that the program has closed
                 {"late", 0},    // is gone for static objects that are destroyed late
                 {"many", 0}};   // leaves threads their files and memory
    const unsigned threads = isThorough() ? 10'000 : effort(2000, 300);
    for (const auto& [program, files] : cases) {
        for (const Variables& mode : kModes) {
            SCOPED_TRACE(program);
            Variables settings = mode;
            // Checked builds have memory of their own for each thread that there ever was.
            settings.emplace_back("COUNT", std::to_string(threads));
            settings.emplace_back("MEMORY", std::to_string(effort(threads * 1000, 0)));
            const Recording run(program, settings);
            if (run.status == kNotHere)
                continue;
            expectTraces(run, true);
            EXPECT_TRUE(files == 0 || run.traces().size() == files);
            EXPECT_TRUE(run.directory.files(".page").empty());
        }
    }
}

/// When the functions that are numbers were entered, in all traces of a run.
std::map<unsigned, std::uint64_t> ticksOfEnters(const Recording& run) {
    std::map<unsigned, std::uint64_t> ticks;
    for (const std::string& name : run.traces()) {
        CTraceSourceBufferFile file;
        file.open(run.directory.path(name));
        CTraceReaderPlain reader(file);
        while (const PacketPointer packet{reader.get()}) {
            if (const auto* enter = dynamic_cast<CFunctionEnter*>(packet.get()))
                ticks.emplace(enter->TgtFuncId() - kFirstNumber, enter->Tick());
        }
    }
    return ticks;
}

TEST(InstrumentingStream, TellsTheTimeOfTheSystemByAnyClock) {
    // Microseconds: a reading of the two clocks takes a tenth of one, unless it is interrupted.
    constexpr double kBound_s = 10e-6;
    for (const std::string word : {"", "auto", "tsc", "monotonic", "sundial"}) {
        SCOPED_TRACE(word);
        const Recording run("timed", {{"QVX_TRACECLOCK", word}});
        EXPECT_EQ(run.status, 0);
        const std::string complaint = platform::chooseClock(word, platform::counterFacts()).complaint;
        EXPECT_EQ(run.directory.content("errors"), complaint.empty() ? "" : "quorvex: " + complaint + "\n");
        ASSERT_EQ(run.traces().size(), 1U);
        const Trace trace(run.directory.path(run.traces()[0]));
        EXPECT_EQ(trace.frequency, platform::counterFrequency());
        const std::map<unsigned, std::uint64_t> entered = ticksOfEnters(run);
        // As spans, because nobody says that the ticks of the two begin at the same time.
        std::istringstream lines(run.directory.content("told"));
        std::int64_t before = 0, after = 0, firstBefore = 0, firstAfter = 0;
        for (const auto& [n, tick] : entered) {
            ASSERT_TRUE(lines >> before >> after);
            if (n == 1) {
                firstBefore = before;
                firstAfter = after;
            }
            const double span = static_cast<double>(tick - entered.at(1)) / static_cast<double>(trace.frequency);
            EXPECT_GT(span, static_cast<double>(before - firstAfter) * 1e-9 - kBound_s) << n;
            EXPECT_LT(span, static_cast<double>(after - firstBefore) * 1e-9 + kBound_s) << n;
        }
        EXPECT_GT(static_cast<double>(after - firstBefore) * 1e-9, 0.5) << "long enough to see a wrong frequency";
    }
}

TEST(InstrumentingStream, TellsTimesOfThreadsThatCanBeCompared) {
    const unsigned count = effort(20'000, 2000);
    for (const char* clock : {"", "tsc", "monotonic"}) {
        const Recording run("inTurn", {{"QVX_TRACECLOCK", clock}, {"COUNT", std::to_string(count)}});
        EXPECT_EQ(run.status, 0);
        const std::map<unsigned, std::uint64_t> entered = ticksOfEnters(run);
        EXPECT_EQ(entered.size(), count);
        EXPECT_TRUE(std::ranges::is_sorted(entered, {}, [](const auto& one) { return one.second; })) << clock;
    }
}

TEST(InstrumentingStream, CompletesAllFilesWhenTheProgramEndsWhileThreadsRun) {
    for (unsigned i = 0; i < 10; ++i) {
        const Recording run("running", kModes[i % 2]);
        expectTraces(run, false);
        EXPECT_EQ(run.traces().size(), 5U);
    }
}

TEST(InstrumentingStream, TellsOnceWhatItCannotRecord) {
    struct Case {
        const char* program;
        const char* directory;
        const char* mode;
        const char* said; ///< how the line ends
    };
    const std::string longName(platform::kEnvironmentLimit + 1, 'x');
    const Case cases[] = {
        {"unwritable", "/nonexistent/directory", "",
         ": No such file or directory; this thread is not recorded any further"},
        {"unwritable", "/nonexistent/directory", "mapped",
         ": No such file or directory; this thread is not recorded any further"},
        {"unwritable", "/nonexistent/directory", "quiet", ""},
        {"unwritable", longName.c_str(), "", ": longer than 260 characters; nothing is recorded there"},
        {"full", "sub", "", "; this thread is not recorded any further"}, // for a full disk, or a limit of the process
        {"full", "sub", "mapped,quiet", ""},
        {"limitedFiles", "sub", "", ": File too large; this thread is not recorded any further"},
        {"limitedFiles", "sub", "mapped", "Cannot record in mode mapped: File too large; recording as usual."},
        {"unread", "/nonexistent/directory", "", nullptr},
        {"unreadAndFull", "/nonexistent/directory", "", nullptr},
        {"unwritten", "/nonexistent/directory", "", nullptr},
        {"logging", "/nonexistent/directory", "",
         ": No such file or directory; this thread is not recorded any further"},
        {"displaced", ".", "", nullptr},
        {"off", ".", "off", ""},
        {"unknownMode", ".", "mmap", nullptr},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.program + std::string(" ") + test.mode);
        const Recording run(test.program, {{"QVX_TRACEDIR", test.directory}, {"QVX_TRACEMODE", test.mode}});
        if (run.status == kNotHere)
            continue;
        EXPECT_EQ(run.status, 0);
        if (!test.said)
            continue;
        const std::string errors = run.directory.content("errors");
        EXPECT_EQ(std::ranges::count(errors, '\n'), *test.said != 0) << errors;
        EXPECT_TRUE(errors.find(std::string(test.said) + (*test.said ? "\n" : "")) != std::string::npos) << errors;
        EXPECT_TRUE(run.traces().empty());
    }
}

TEST(InstrumentingStream, LosesNothingToSignalHandlersThatRecordAndExit) {
    // Each with so many packets; a handler ends the program after so many calls, 0: never.
    const unsigned count = isThorough() ? 30'000'000 : effort(400'000, 50'000);
    std::mt19937 random(1);
    for (unsigned i = 0; i < (isThorough() ? 100 : 8); ++i) {
        Variables settings = kModes[i % 2];
        settings.emplace_back("COUNT", std::to_string(count));
        const bool exits = i % 4 >= 2;
        settings.emplace_back("EXIT", exits ? std::to_string(1 + random() % (count / 1000)) : "0");
        const Recording run("interrupted", settings);
        if (run.status == kNotHere)
            GTEST_SKIP() << "there are no signal handlers here";
        ASSERT_EQ(run.status, 0);
        ASSERT_EQ(run.traces().size(), 1U);
        const Trace trace(run.directory.path(run.traces()[0]));
        EXPECT_TRUE(trace.whole);
        // Where each call takes long, so many signals may come meanwhile that some find no room.
        EXPECT_TRUE(kChecked || trace.messages == 0) << "nothing was refused";
        ASSERT_EQ(run.told.size(), 1U);
        const auto [outer, inner] = *run.told.begin();
        EXPECT_GE(trace.numbered[0], outer);
        EXPECT_LE(trace.numbered[0], outer + 1);
        EXPECT_EQ(trace.numbered[1], inner);
        EXPECT_FALSE(std::filesystem::exists(run.directory.path(run.traces()[0] + ".page")));
    }
}

// Of a thread that is cancelled, and of one whose allocator is recorded, too, all calls that it told of are there.
TEST(InstrumentingStream, HoldsWhatWasRecordedInAnOddPlace) {
    for (const auto& [program, files] : {std::pair{"allocating", 2U}, {"cancelled", 20U}}) {
        for (const Variables& mode : kModes) {
            const Recording run(program, mode);
            if (run.status == kNotHere)
                continue;
            EXPECT_EQ(run.status, 0);
            EXPECT_EQ(run.traces().size(), files);
            for (const std::string& name : run.traces()) {
                const Trace trace(run.directory.path(name));
                EXPECT_TRUE(trace.whole && trace.enters == trace.leaves) << name;
                EXPECT_GE(trace.enters, run.told.at(static_cast<unsigned>(std::stoul(name.substr(7)))));
            }
        }
    }
}

TEST(InstrumentingStream, LosesNothingOfATraceThatGoesOnBehindItsEndAndIsCut) {
    const Recording run("resumed", {{"QVX_TRACEMODE", "mapped"}, {"EXIT", "1"}});
    if (run.status == kNotHere)
        GTEST_SKIP() << "no number of a thread is given again when it is asked for";
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.told.size(), 2U);
    for (const auto& [thread, enters] : run.told)
        EXPECT_EQ(Trace(run.directory.path("thread_" + std::to_string(thread) + ".qvx")).enters, enters);
}

TEST(InstrumentingStream, NeverReplacesATrace) {
    const Recording run("replaced");
    if (run.status == kNotHere)
        GTEST_SKIP() << "a process stays one program here";
    const std::vector<std::string> traces = run.traces();
    ASSERT_EQ(traces.size(), 2U);
    const std::string thread = std::to_string(run.told.begin()->first);
    EXPECT_EQ(traces, (std::vector{"thread_" + thread + "-2.qvx", "thread_" + thread + ".qvx"}));
    EXPECT_TRUE(Trace(run.directory.path(traces[0])).whole);
    EXPECT_GT(Trace(run.directory.path(traces[1])).enters, 10'000U) << "the pages that were full";
}

TEST(InstrumentingStream, WaitsNotLongForThreadsThatAreStuck) {
    const Recording run("stuck");
    EXPECT_EQ(run.status, 0);
    unsigned whole = 0;
    for (const std::string& name : run.traces())
        whole += Trace(run.directory.path(name)).whole;
    EXPECT_EQ(whole, 1U) << "that of the main thread";
}

TEST(InstrumentingStream, LeavesTheSameFileInMappedMode) {
    std::string contents[2];
    for (unsigned i = 0; i < 2; ++i) {
        const Recording run("seeking", kModes[i]);
        EXPECT_EQ(run.status, 0);
        ASSERT_EQ(run.traces().size(), 1U);
        contents[i] = run.directory.content(run.traces()[0]);
    }
    // Only the timestamp's tick differs, and what pads its page is of no matter.
    constexpr std::size_t kTick = 18 + 2, kPadding = 50;
    ASSERT_GT(contents[0].size(), std::size_t{2 * kPageSize});
    for (const auto& [at, size] : {std::pair{kTick, std::size_t{8}}, {kPageSize - kPadding, kPadding}})
        contents[0].replace(at, size, contents[1], at, size);
    EXPECT_TRUE(contents[0] == contents[1]);
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

TEST(InstrumentingStream, GivesAPlaceOneNumberInAllThreads) {
    const Recording run("threads");
    std::map<std::string, std::set<unsigned>> numbers;
    for (const std::string& file : run.traces()) {
        for (const auto& [number, name] : Trace(run.directory.path(file)).names)
            numbers[name].insert(number);
    }
    EXPECT_EQ(numbers.size(), 2U);
    for (const auto& [name, ofName] : numbers)
        EXPECT_TRUE(ofName.size() == 1 && !ofName.contains(0)) << name;
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

struct Stream {
    unsigned& gone;
    ~Stream() { ++gone; }
};

TEST(ThreadInstanceMap, OwnsItsStreams) {
    unsigned gone = 0;
    {
        ThreadInstanceMap<Stream> map;
        auto* first = new Stream{gone};
        EXPECT_TRUE(map.insert(5, first) && map.insert(6, new Stream{gone}));
        EXPECT_FALSE(map.insert(5, first) || map.insert(7, nullptr));
        EXPECT_TRUE(map(5) == first && !map(7));
        EXPECT_EQ(gone, 0U);
    }
    EXPECT_EQ(gone, 2U);

    Stream running{gone};
    ThreadInstanceMap<Stream> map;
    EXPECT_TRUE(map.insert(5, &running));
    map.close([](auto& all) { EXPECT_EQ(all.size(), 1U); });
    EXPECT_TRUE(map.closed() && !map.insert(8, &running));
}

} // namespace
} // namespace Quorvex::test
