#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/Effort.h"
#include "tests/support/NumberedPackets.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <sstream>

namespace Quorvex::test {
namespace {

/// Kills as often as a few seconds allow, but at least 30 times.
class Kills {
public:
    bool goOn() {
        const auto now = std::chrono::steady_clock::now();
        return m_count++ < (isThorough() ? 1000 : 30) || (now - m_begin < std::chrono::seconds(2) && m_count <= 200);
    }
    /// Whether this run's trace is also shown by the program.
    bool areShown() const { return m_count % 10 == 1; }

private:
    std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    unsigned m_count = 0;
};

/// The bytes of the numbered packets, which all runs put alike.
const std::string& numberedWire(unsigned n) {
    static std::vector<std::string> wires;
    while (wires.size() <= n)
        wires.push_back(wireOf(*numberedPacket(static_cast<unsigned>(wires.size()))));
    return wires[n];
}

struct Found {
    unsigned packets = 0;   ///< the first so many are the ones that were put
    unsigned others = 0;    ///< behind those
    std::uint64_t left = 0; ///< bytes that could not be read

    /// Reads no more than `enough` of them: a program that runs may write faster than they are read.
    explicit Found(const std::string& path, unsigned enough = ~0U) {
        CTraceSourceBufferFile file;
        file.open(path.c_str());
        CTraceReaderPlain reader(file);
        while (packets < enough) {
            const PacketPointer packet(reader.get());
            if (!packet)
                break;
            const tagTCode code = packet->TraceCode();
            if (code == TraceEnabled || code == Timestamp || code == Fill)
                continue;
            if (others == 0 && wireOf(*packet) == numberedWire(packets))
                ++packets;
            else
                ++others;
        }
        left = file.size() - reader.position();
        takeLog();
    }
};

/// The recording program, killed as soon as so many packets cannot be lost any more.
struct KilledRun {
    TemporaryDirectory directory;
    bool killed;
    unsigned taken; ///< packets that could not be lost any more

    /// `alive` looks at the run before it is killed.
    KilledRun(const char* mode, unsigned enough, const std::function<void(KilledRun&)>& alive = {}) {
        const std::string counter = directory.path("taken");
        const auto count = [&] {
            std::error_code missing;
            const auto size = std::filesystem::file_size(counter, missing);
            return missing ? 0U : static_cast<unsigned>(size);
        };
        killed = runAndKill({QUORVEX_RECORDER,
                             {"endless"},
                             directory.path().string(),
                             {{"QVX_TRACEDIR", "."}, {"QVX_TRACEFILENAME", "run_"}, {"QVX_TRACEMODE", mode}}},
                            [&] {
                                taken = count();
                                if (taken < enough)
                                    return false;
                                if (alive)
                                    alive(*this);
                                return true;
                            });
        taken = count();
    }

    std::string trace() const { return directory.path(directory.files(".qvx").at(0)); }

#if defined(QUORVEX_QVX)
    /// Lines of the trace's table, and what `qvx dump` ended with.
    std::pair<unsigned, int> shown() const {
        const int status = run({QUORVEX_QVX, {"dump", "--parsable", trace()}, directory.path().string(), {}});
        const std::string table = directory.content("told");
        return {static_cast<unsigned>(std::ranges::count(table, '\n')), status};
    }
#endif
};

TEST(KilledProgram, LosesNoPacketThatWasTakenInMappedMode) {
    std::mt19937 random(1);
    for (Kills kills; kills.goOn();) {
        const auto enough = 1 + static_cast<unsigned>(random() % 20'000);
        const KilledRun run("mapped", enough, [](const KilledRun& alive) {
            const Found found(alive.trace(), alive.taken + 1000);
            EXPECT_GE(found.packets, alive.taken) << "also while the program runs";
            EXPECT_EQ(found.others, 0U);
        });
        ASSERT_TRUE(run.killed);
        const Found found(run.trace());
        EXPECT_GE(found.packets, run.taken);
        EXPECT_LE(found.packets, run.taken + 1) << "the packet that was being put";
        EXPECT_EQ(found.others, 0U);
        EXPECT_EQ(found.left, 0U);
#if defined(QUORVEX_QVX)
        if (!kills.areShown())
            continue;
        const auto [lines, status] = run.shown();
        EXPECT_GE(lines, run.taken);
        EXPECT_EQ(status, 0);
#endif
    }
}

TEST(KilledProgram, LosesNothingBeforeTheLastFlushInTheDefaultMode) {
    std::mt19937 random(2);
    for (Kills kills; kills.goOn();) {
        const KilledRun run("", 1 + static_cast<unsigned>(random() % 20'000));
        ASSERT_TRUE(run.killed);
        const Found found(run.trace());
        EXPECT_GE(found.packets, run.taken);
        EXPECT_LE(found.others, 1U) << "a define packet without the whole of its name";
        EXPECT_LE(found.left, 700U) << "the packet in which the writing was cut, with its text";
#if defined(QUORVEX_QVX)
        if (kills.areShown()) {
            EXPECT_GE(run.shown().first, run.taken);
        }
#endif
    }
}

TEST(FullDisk, EndsRecordingWithAReasonAndLeavesWhatCameBefore) {
    for (const std::string mode : {"", "mapped"}) {
        for (const unsigned kilobytes : {4U, 100U, 256U, 300U, 600U}) {
            SCOPED_TRACE(mode + " " + std::to_string(kilobytes));
            const TemporaryDirectory directory;
            std::filesystem::create_directory(directory.path("sub"));
            const int status =
                run({QUORVEX_RECORDER,
                     {"limited"},
                     directory.path().string(),
                     {{"QVX_TRACEDIR", "sub"}, {"QVX_TRACEMODE", mode}, {"SPACE", std::to_string(kilobytes * 1024)}}});
            if (status == kNotHere)
                GTEST_SKIP() << "room for files cannot be limited here";
            EXPECT_EQ(status, 0);
            std::istringstream told(directory.content("told"));
            unsigned taken = 0;
            std::string reason;
            std::getline(told >> taken >> std::ws, reason);
            const Found found(directory.path("left"));
            EXPECT_EQ(found.others, 0U);
            const std::uint64_t size = std::filesystem::file_size(directory.path("left"));
            const std::string failure = "CTraceWriterPaged::overflow_flush(): ";
            if (mode.empty()) {
                EXPECT_EQ(size, kilobytes * 1024) << "all room there is";
                EXPECT_EQ(reason.substr(0, failure.size()), failure);
                EXPECT_LE(found.packets, taken);
                EXPECT_LE(found.left, 700U) << "the packet in which the writing was cut, with its text";
            } else if (std::filesystem::exists(directory.path("left.page"))) {
                EXPECT_EQ(reason.substr(0, failure.size()), failure);
                EXPECT_EQ(found.packets, taken) << "the rest is in the page file";
                EXPECT_EQ(found.left, 0U);
            } else {
                EXPECT_LE(kilobytes, 256U) << "no room for the page file";
                EXPECT_TRUE(reason.starts_with("CQVXInstrumentingStream: Cannot record in mode mapped: ")) << reason;
            }
        }
    }
}

} // namespace
} // namespace Quorvex::test
