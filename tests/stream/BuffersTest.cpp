#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceBufferState.h"
#include "quorvex/stream/TraceSinkBufferFile.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "quorvex/stream/TraceSourceBufferMapped.h"
#include "tests/support/Doubles.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <iterator>
#include <new>
#include <sstream>

namespace Quorvex::test {
namespace {

TEST(AutoBuffer, CopiesItsContent) {
    CTraceAutoBuffer block;
    char* bytes = block;
    bytes[0x3FFFF] = 'z';
    CTraceAutoBuffer copy(block);
    const CTraceAutoBuffer& self = copy;
    copy = self;
    block.clear();
    EXPECT_EQ(bytes[0x3FFFF], 0);
    EXPECT_EQ(*(copy + 0x3FFFFU), 'z');
}

TEST(BufferState, AddsBitsAndNeverReadsAsGoodOnceDestroyed) {
    std::string memory(sizeof(CTraceBufferState), '\0');
    char* volatile start = memory.data();
    auto* state = new (memory.data()) CTraceBufferState();
    state->setstate(CTraceBufferState::eofbit);
    state->setstate(CTraceBufferState::failbit);
    EXPECT_TRUE(state->rdstate() == 3 && state->eof() && state->fail() && !state->bad() && !state->good());
    state->setstate(0);
    EXPECT_TRUE(state->good());
    state->setstate(CTraceBufferState::badbit);
    EXPECT_TRUE(state->fail() && state->bad() && !state->eof());
    state->clear();
    state->~CTraceBufferState();
    EXPECT_EQ(hex(std::string(start, 4)), "01 00 00 00");
}

TEST(StreamSource, ReadsAtPositionsAndKnowsItsSizeAtItsEnd) {
    std::istringstream in("0123456789");
    CTraceSourceBufferStream source(in);
    EXPECT_EQ((Steps{readFrom(source, 0), readFrom(source, 3, 4)}), (Steps{"", "456"}));
    EXPECT_EQ(source.size(), 10U);
    EXPECT_EQ(source.position(), 7U);
    EXPECT_EQ(readFrom(source, 16), "789") << "some is enough";
    EXPECT_EQ(source.position(), 0U) << "a failed stream has none";
    EXPECT_EQ(source.size(), 10U);
    EXPECT_TRUE(source.eof() && !source.good()) << "the state is as before";
    EXPECT_EQ(readFrom(source, 1), "!");
    source.clear();
    EXPECT_EQ(readFrom(source, 1, 0), "0");
    in.exceptions(std::ios::failbit | std::ios::eofbit);
    EXPECT_EQ((Steps{readFrom(source, 16, 8), readFrom(source, 1)}), (Steps{"89", "!"})) << "throwing changes nothing";
}

TEST(StreamSink, CountsWhatItHasWritten) {
    std::stringstream stream;
    stream << std::string(20, '.');
    CTraceSinkBufferStream sink(stream);
    EXPECT_EQ((Steps{writeTo(sink, ""), writeTo(sink, "0123456789")}), (Steps{"0", "10"}));
    EXPECT_EQ(sink.tellp(), 10U);
    EXPECT_EQ(writeTo(sink, "ab", 15), "2") << "positions are the stream's";
    EXPECT_EQ(sink.tellp(), 12U);
    EXPECT_EQ(writeTo(sink, "c", 12), "1") << "the count is no position any more";
    EXPECT_EQ(stream.str(), "............c..ab...0123456789");
    stream.setstate(std::ios::badbit);
    EXPECT_EQ((Steps{writeTo(sink, "d"), writeTo(sink, "d", 3)}), (Steps{"0!", "0!"}));
    EXPECT_FALSE(sink.good());
    sink.clear();
    EXPECT_TRUE(sink.good() && !sink.eof());
}

TEST(StreamSink, ReportsWhatItsStreamThrows) {
    struct Broken : std::streambuf {
        bool throws = true;
        off_type position = 7;
        std::streamsize xsputn(const char*, std::streamsize) override { throw std::runtime_error("torn"); }
        int sync() override { throw std::runtime_error("torn"); }
        pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return position; }
        pos_type seekpos(pos_type, std::ios::openmode) override {
            if (throws)
                throw std::runtime_error("stuck");
            return position = -1;
        }
    } broken;
    std::ostream stream(&broken);
    stream.exceptions(std::ios::badbit);
    CTraceSinkBufferStream sink(stream);
    EXPECT_EQ(writeTo(sink, "a"), "0!");
    EXPECT_EQ(takeLog(), "CTraceSinkBufferStream::write:  Catched I/O error during write:torn\n");
    sink.clear();
    sink.flush(); // has no result
    EXPECT_FALSE(sink.good());
    sink.clear();
    EXPECT_EQ(writeTo(sink, "a", 5), "0!");
    EXPECT_EQ(takeLog(), "CTraceSinkBufferStream::seek(): Catched Exception :stuck\n");
    broken.throws = false;
    sink.clear();
    EXPECT_EQ(writeTo(sink, "a", 5), "0!");
    EXPECT_EQ(takeLog(), "CTraceSinkBufferStream::seek(): seek of position5 failed.\n");
}

// What has no text is not reported, but caught as well.
TEST(StreamBuffers, CatchWhateverAHostsStreamThrows) {
    struct Foreign : std::streambuf {
        int_type underflow() override { throw 42; }
        int_type overflow(int_type) override { throw 42; }
        int sync() override { throw 42; }
        pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { throw 42; }
        pos_type seekpos(pos_type, std::ios::openmode) override { throw 42; }
    } foreign;
    std::iostream stream(&foreign);
    const auto renew = [&stream] {
        stream.clear();
        stream.exceptions(std::ios::badbit);
    };
    struct Sink : CTraceSinkBufferStream {
        using CTraceSinkBufferStream::CTraceSinkBufferStream;
        using CTraceSinkBufferStream::sink_seek, CTraceSinkBufferStream::sink_tell;
    } sink(stream);
    struct Source : CTraceSourceBufferStream {
        using CTraceSourceBufferStream::CTraceSourceBufferStream;
        using CTraceSourceBufferStream::seek, CTraceSourceBufferStream::tell;
    } source(stream);
    const std::pair<const char*, std::function<bool()>> steps[] = {
        {"write", [&] { return writeTo(sink, "a") == "0!"; }},
        {"write there", [&] { return writeTo(sink, "a", 5) == "0!"; }},
        {"flush", [&] { return sink.flush(), true; }},
        {"sink_seek", [&] { return !sink.sink_seek(5); }},
        {"sink_tell", [&] { return sink.sink_tell() == 0; }},
        {"read", [&] { return readFrom(source, 1) == "!"; }},
        {"read there", [&] { return readFrom(source, 1, 5) == "!"; }},
        {"seek", [&] { return source.seek(5); }},
        {"tell", [&] { return source.tell() == 0; }},
        {"size", [&] { return source.size() == 0; }},
    };
    for (const auto& [name, step] : steps) {
        renew();
        EXPECT_TRUE(step()) << name;
    }
    EXPECT_EQ(takeLog(), "");
}

TEST(Files, AreMadeAppendedToAndRead) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("f");
    CTraceSinkBufferFile sink;
    EXPECT_FALSE(sink.open(nullptr, false));
    EXPECT_TRUE(sink.close()) << "nothing is open";
    EXPECT_TRUE(sink.open(path.c_str(), true)) << "a missing file is made";
    EXPECT_EQ(writeTo(sink, "abc"), "3");
    EXPECT_TRUE(sink.open(path.c_str(), true)) << "closes the one that is open";
    EXPECT_EQ(sink.tellp(), 3U) << "counts from the real start";
    EXPECT_EQ((Steps{writeTo(sink, "def", 3), writeTo(sink, "B", 1)}), (Steps{"3", "1"}));
    EXPECT_TRUE(sink.close() && !sink.is_open());
    EXPECT_EQ(directory.content("f"), "aBcdef");

    CTraceSourceBufferFile source;
    EXPECT_FALSE(source.open(nullptr));
    EXPECT_TRUE(source.open(path.c_str()));
    EXPECT_EQ(source.size(), 6U);
    EXPECT_EQ(readFrom(source, 8), "aBcdef");
    EXPECT_TRUE(source.open(path.c_str()) && source.good()) << "at its end, opened again";
    EXPECT_EQ(source.position(), 0U);
    EXPECT_TRUE(source.close() && source.close());

    EXPECT_TRUE(sink.open(path.c_str(), false) && sink.close());
    EXPECT_EQ(directory.content("f"), "");
    EXPECT_TRUE(source.open(path.c_str())) << "an empty file";
    EXPECT_EQ(readFrom(source, 1), "!");
}

/// What a buffer tells of itself.
std::string stateOf(CTraceSourceBuffer& source) {
    return std::to_string(source.position()) + " of " + std::to_string(source.size()) + (source.eof() ? " eof" : "") +
           (source.good() ? " good" : "");
}

TEST(MappedFiles, AreReadAsOthersAre) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("f", RandomPackets(4).bytes(100'000));
    CTraceSourceBufferFile file;
    CTraceSourceBufferMapped mapped;
    EXPECT_EQ(stateOf(mapped), stateOf(file)) << "before anything is open";
    EXPECT_EQ(readFrom(mapped, 1), readFrom(file, 1));
    EXPECT_EQ(stateOf(mapped), stateOf(file));
    EXPECT_FALSE(mapped.open(nullptr));
    ASSERT_TRUE(file.open(path) && mapped.open(path) && mapped.is_open());
    EXPECT_EQ(mapped.bytes(), directory.content("f"));
    const auto same = [&](auto&& step, const std::string& what) {
        EXPECT_EQ(step(mapped), step(file)) << what;
        EXPECT_EQ(stateOf(mapped), stateOf(file)) << what;
    };
    RandomPackets random(5);
    for (unsigned i = 0; i < 2000; ++i) {
        constexpr std::uint64_t kOdd[] = {0, 99'999, 100'000, 100'001, 1ULL << 40, 1ULL << 63, kUnknown64 - 1};
        const unsigned count = random.below(8) == 0 ? random.below(200'000) : random.below(3000);
        const std::uint64_t place = random.below(8) == 0 ? kOdd[random.below(std::size(kOdd))] : random.below(100'000);
        const bool goes = random.below(2) == 0;
        same([&](auto& source) { return goes ? readFrom(source, count, place) : readFrom(source, count); },
             "step " + std::to_string(i) + ": " + std::to_string(count) + " at " + std::to_string(place));
        if (random.below(4) == 0) {
            mapped.release(place, place + 70'000);
            same([](auto& source) { return source.clear(), 0; }, "clear");
        }
    }
    EXPECT_EQ(mapped.bytes(), directory.content("f")) << "also what was released";
    directory.write("f", "cut"); // where it can be while it is mapped
    file.clear();
    mapped.clear();
    EXPECT_EQ(readFrom(mapped, 10'000, 10), readFrom(file, 10'000, 10));
    EXPECT_EQ(mapped.size(), directory.content("f").size());
    EXPECT_TRUE(mapped.close() && file.close() && !mapped.is_open() && mapped.bytes().empty());
    file.clear();
    mapped.clear();
    same([](auto& source) { return readFrom(source, 1); }, "closed");
}

TEST(MappedFiles, AreNotWhatCannotBeMapped) {
    const TemporaryDirectory directory;
    CTraceSourceBufferMapped source;
    std::vector<std::pair<std::string, int>> rows = {{directory.path("missing/f"), ENOENT},
                                                     {directory.path().string(), EISDIR},
                                                     {directory.write("empty", ""), ENODATA}};
    if (hasFullDevice())
        rows.emplace_back("/dev/null", ENOTSUP);
    for (const auto& [path, error] : rows) {
        EXPECT_FALSE(source.open(path) || source.good() || source.is_open());
        EXPECT_EQ(source.error(), error) << path;
    }
    EXPECT_TRUE(source.open(directory.write("f", "bytes")) && source.good()) << "another one";
    EXPECT_EQ(readFrom(source, 9), "bytes");
}

TEST(Files, TellWhyTheyCannotBeOpened) {
    const TemporaryDirectory directory;
    CTraceSourceBufferFile source;
    CTraceSinkBufferFile sink;
    const std::pair<std::string, int> rows[] = {{directory.path("missing/f"), ENOENT},
                                                {directory.path().string(), EISDIR}};
    for (const auto& [path, error] : rows) {
        EXPECT_FALSE(source.open(path.c_str()) || source.good());
        EXPECT_EQ(source.error(), error);
        for (const bool append : {false, true}) {
            EXPECT_FALSE(sink.open(path.c_str(), append) || sink.good());
            EXPECT_EQ(sink.error(), error);
        }
    }
}

} // namespace
} // namespace Quorvex::test
