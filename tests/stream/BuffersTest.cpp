#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceBufferState.h"
#include "quorvex/stream/TraceSinkBufferFile.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <new>
#include <sstream>

namespace Quorvex::test {
namespace {

TEST(AutoBuffer, IsOnePageAndCopiesItsContent) {
    CTraceAutoBuffer block;
    char* bytes = block;
    EXPECT_EQ(block.size(), 0x40000U);
    EXPECT_EQ(block + 5U, bytes + 5);
    EXPECT_EQ(*&block, bytes);
    EXPECT_EQ(block.operator->(), bytes);
    bytes[0] = 'a';
    bytes[0x3FFFF] = 'z';
    CTraceAutoBuffer copy;
    copy = block;
    const CTraceAutoBuffer& self = copy;
    copy = self;
    block.clear();
    EXPECT_EQ(bytes[0], 0);
    EXPECT_EQ(*(copy + 0x3FFFFU), 'z');
}

TEST(BufferState, AddsBitsAndNeverReadsAsGoodOnceDestroyed) {
    CTraceBufferState state;
    EXPECT_TRUE(state.good());
    state.setstate(CTraceBufferState::eofbit);
    state.setstate(CTraceBufferState::failbit);
    EXPECT_EQ(state.rdstate(), 3);
    EXPECT_TRUE(state.eof() && state.fail() && !state.bad() && !state.good());
    state.setstate(0);
    EXPECT_TRUE(state.good());
    state.setstate(CTraceBufferState::badbit);
    EXPECT_TRUE(state.fail() && state.bad() && !state.eof());
    state.clear();
    std::string memory(sizeof(CTraceBufferState), '\0');
    char* volatile start = memory.data();
    auto* object = new (memory.data()) CTraceBufferState(state);
    object->~CTraceBufferState();
    EXPECT_EQ(hex(std::string(start, 4)), "01 00 00 00");
}

TEST(StreamSource, ReadsAtPositionsAndKnowsItsSizeAtItsEnd) {
    std::istringstream in("0123456789");
    CTraceSourceBufferStream source(in);
    char bytes[16];
    unsigned got = 9;
    EXPECT_TRUE(source.read(bytes, 0, got));
    EXPECT_EQ(got, 0U);
    EXPECT_TRUE(source.read(bytes, 3, 4, got));
    EXPECT_EQ(std::string(bytes, got), "456");
    EXPECT_EQ(source.position(), 7U);
    EXPECT_EQ(source.size(), 10U);
    EXPECT_EQ(source.position(), 7U);
    EXPECT_TRUE(source.read(bytes, 16, got)) << "some is enough";
    EXPECT_EQ(got, 3U);
    EXPECT_TRUE(source.eof());
    EXPECT_FALSE(source.good());
    EXPECT_EQ(source.position(), 0U) << "a failed stream has none";
    EXPECT_EQ(source.size(), 10U);
    EXPECT_TRUE(source.eof()) << "the state is as before";
    EXPECT_FALSE(source.read(bytes, 1, got));
    source.clear();
    EXPECT_TRUE(source.good());
    EXPECT_TRUE(source.read(bytes, 1, 0, got));

    in.clear();
    in.exceptions(std::ios::failbit | std::ios::eofbit);
    EXPECT_TRUE(source.read(bytes, 16, 8, got)) << "a stream that throws is read all the same";
    EXPECT_EQ(got, 2U);
    EXPECT_FALSE(source.read(bytes, 1, got));
}

TEST(StreamSink, CountsWhatItHasWritten) {
    std::stringstream stream;
    stream << std::string(100, '.');
    CTraceSinkBufferStream sink(stream);
    unsigned written = 9;
    EXPECT_TRUE(sink.write("x", 0, written));
    EXPECT_EQ(written, 0U);
    EXPECT_TRUE(sink.write("0123456789", 10, written));
    EXPECT_EQ(sink.tellp(), 10U);
    EXPECT_EQ(stream.str().size(), 110U);
    EXPECT_TRUE(sink.write("ab", 2, 50, written)) << "positions are the stream's";
    EXPECT_EQ(stream.str().substr(49, 4), ".ab.");
    EXPECT_EQ(sink.tellp(), 12U);
    EXPECT_TRUE(sink.write("c", 1, 12, written)) << "the count is no position any more";
    EXPECT_EQ(stream.str().substr(10, 4), "..c.");
    stream.setstate(std::ios::badbit);
    EXPECT_FALSE(sink.write("d", 1, written));
    EXPECT_EQ(written, 0U);
    EXPECT_FALSE(sink.write("d", 1, 3, written));
    EXPECT_FALSE(sink.good());
    sink.clear();
    EXPECT_TRUE(sink.good());
    EXPECT_FALSE(sink.eof());
}

TEST(StreamSink, ReportsWhatItsStreamThrows) {
    struct Broken : std::streambuf {
        std::streamsize xsputn(const char*, std::streamsize) override { throw std::runtime_error("torn"); }
        pos_type seekpos(pos_type, std::ios::openmode) override { throw std::runtime_error("stuck"); }
        pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return 7; }
    } buffer;
    std::ostream stream(&buffer);
    stream.exceptions(std::ios::badbit);
    CTraceSinkBufferStream sink(stream);
    unsigned written = 0;
    EXPECT_FALSE(sink.write("a", 1, written));
    EXPECT_EQ(takeLog(), "CTraceSinkBufferStream::write:  Catched I/O error during write:torn\n");
    sink.clear();
    EXPECT_FALSE(sink.write("a", 1, 5, written));
    EXPECT_EQ(takeLog(), "CTraceSinkBufferStream::seek(): Catched Exception :stuck\n");
    stream.exceptions(std::ios::goodbit);
    struct Fixed : std::streambuf {
        pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return good ? 0 : -1; }
        pos_type seekpos(pos_type, std::ios::openmode) override {
            good = false;
            return -1;
        }
        bool good = true;
    } fixed;
    std::ostream pipe(&fixed);
    CTraceSinkBufferStream onward(pipe);
    EXPECT_FALSE(onward.write("a", 1, 5, written));
    EXPECT_EQ(takeLog(), "CTraceSinkBufferStream::seek(): seek of position5 failed.\n");
}

TEST(Files, AreMadeAppendedToAndRead) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("f");
    CTraceSinkBufferFile sink;
    unsigned count = 0;
    EXPECT_FALSE(sink.open(nullptr, false));
    EXPECT_TRUE(sink.close()) << "nothing is open";
    EXPECT_TRUE(sink.open(path.c_str(), true)) << "a missing file is made";
    EXPECT_TRUE(sink.write("abc", 3, count));
    EXPECT_TRUE(sink.open(path.c_str(), true)) << "closes the one that is open";
    EXPECT_EQ(sink.tellp(), 3U) << "counts from the real start";
    EXPECT_TRUE(sink.write("def", 3, 3, count));
    EXPECT_TRUE(sink.write("B", 1, 1, count));
    EXPECT_TRUE(sink.close());
    EXPECT_FALSE(sink.is_open());
    EXPECT_EQ(directory.content("f"), "aBcdef");

    CTraceSourceBufferFile source;
    EXPECT_FALSE(source.open(nullptr));
    EXPECT_TRUE(source.open(path.c_str()));
    EXPECT_EQ(source.size(), 6U);
    char bytes[8];
    EXPECT_TRUE(source.read(bytes, 8, count));
    EXPECT_EQ(std::string(bytes, count), "aBcdef");
    EXPECT_TRUE(source.open(path.c_str())) << "at its end, opened again";
    EXPECT_TRUE(source.good());
    EXPECT_EQ(source.position(), 0U);
    EXPECT_TRUE(source.close() && source.close());

    EXPECT_TRUE(sink.open(path.c_str(), false));
    EXPECT_TRUE(sink.close());
    EXPECT_EQ(directory.content("f"), "");
    EXPECT_TRUE(source.open(path.c_str())) << "an empty file";
    EXPECT_FALSE(source.read(bytes, 1, count));
}

TEST(Files, TellWhyTheyCannotBeOpened) {
    const TemporaryDirectory directory;
    CTraceSourceBufferFile source;
    EXPECT_FALSE(source.open(directory.path("missing").c_str()));
    EXPECT_EQ(source.error(), ENOENT);
    EXPECT_FALSE(source.good());
    EXPECT_FALSE(source.open(directory.path().string().c_str())) << "a directory";
    EXPECT_EQ(source.error(), EISDIR);
    CTraceSinkBufferFile sink;
    for (const bool append : {false, true}) {
        EXPECT_FALSE(sink.open(directory.path().string().c_str(), append));
        EXPECT_EQ(sink.error(), EISDIR);
        EXPECT_FALSE(sink.good());
        EXPECT_FALSE(sink.open((directory.path("missing") + "/f").c_str(), append));
        EXPECT_EQ(sink.error(), ENOENT);
    }
}

} // namespace
} // namespace Quorvex::test
