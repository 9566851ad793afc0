#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSinkBufferIStream.h"
#include "quorvex/stream/TraceSinkBufferIStreamWriter.h"
#include "quorvex/stream/TraceSourceBufferIStream.h"
#include "quorvex/stream/TraceSourceBufferIStreamReader.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/System.h"

#include <gtest/gtest.h>

#include <thread>

namespace Quorvex::test {
namespace {

constexpr std::uint64_t kFar = 0x1'0000'0002; ///< cut to 32 bits it would be 2
constexpr char kDigits[] = "0123456789";

/// Bytes in memory behind a COM interface, on the test's stack: counts its references and can be told to fail.
template <class Interface> class Memory : public Interface {
public:
    explicit Memory(std::string content) : bytes(std::move(content)) {}

    std::string bytes;
    std::uint64_t at = 0;
    unsigned most = ~0U;                  ///< no transfer moves more than that
    unsigned boast = 0;                   ///< added to the count that a read reports
    HRESULT transfer = S_OK;              ///< what Read and Write answer
    HRESULT move[3] = {S_OK, S_OK, S_OK}; ///< what moves from the start, the position and the end answer
    HRESULT query = S_OK;                 ///< with S_OK it gives itself, whatever it is asked for
    unsigned moves = 0;                   ///< from the start
    ULONG references = 0;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = query == S_OK ? this : nullptr;
        references += query == S_OK;
        return query;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }

protected:
    template <class Count> HRESULT take(void* out, Count count, Count* got) {
        const auto from = static_cast<std::size_t>(std::min<std::uint64_t>(at, bytes.size()));
        const std::size_t taken = bytes.copy(static_cast<char*>(out), std::min<std::size_t>(count, most), from);
        at += taken;
        *got = static_cast<Count>(taken + boast);
        return transfer;
    }
    template <class Count> HRESULT put(const void* in, Count count, Count* written) {
        *written = std::min<Count>(count, most);
        bytes.replace(static_cast<std::size_t>(at), *written, static_cast<const char*>(in), *written);
        at += *written;
        return transfer;
    }
    HRESULT seek(std::int64_t offset, unsigned origin) {
        if (SUCCEEDED(move[origin])) {
            const std::uint64_t from[] = {0, at, bytes.size()};
            at = from[origin] + static_cast<std::uint64_t>(offset);
            moves += origin == STREAM_SEEK_SET;
        }
        return move[origin];
    }
    HRESULT tell(std::uint64_t& position) const {
        position = at;
        return move[STREAM_SEEK_CUR];
    }
};

class MemoryStream final : public Memory<IStream> {
    using Size = ULARGE_INTEGER;

public:
    using Memory::Memory;
    HRESULT STDMETHODCALLTYPE Read(void* out, ULONG count, ULONG* got) override { return take(out, count, got); }
    HRESULT STDMETHODCALLTYPE Write(const void* in, ULONG count, ULONG* n) override { return put(in, count, n); }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER offset, DWORD origin, Size* position) override {
        const HRESULT result = seek(offset.QuadPart, origin);
        position->QuadPart = at;
        return result;
    }
    HRESULT STDMETHODCALLTYPE SetSize(Size) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream*, Size, Size*, Size*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE LockRegion(Size, Size, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnlockRegion(Size, Size, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }
};

class MemoryReader final : public Memory<IStreamReader> {
public:
    using Memory::Memory;
    HRESULT STDMETHODCALLTYPE Read(char* out, unsigned count, unsigned* got) override { return take(out, count, got); }
    HRESULT STDMETHODCALLTYPE Seek(std::int64_t offset, unsigned origin) override { return seek(offset, origin); }
    HRESULT STDMETHODCALLTYPE Tell(std::uint64_t* position) override { return tell(*position); }
};

class MemoryWriter final : public Memory<IStreamWriter> {
public:
    using Memory::Memory;
    HRESULT STDMETHODCALLTYPE Write(const char* in, unsigned count, unsigned* n) override { return put(in, count, n); }
    HRESULT STDMETHODCALLTYPE Tell(std::uint64_t* position) override { return tell(*position); }
};

/// The text of what a call throws; empty when it throws nothing.
template <class Call> std::string thrown(Call&& call) {
    try {
        call();
    } catch (const CQVXException& exception) {
        return exception.what();
    }
    return "";
}

struct Failure {
    HRESULT result;
    std::string text;
};
const Failure kMapped[] = {{E_POINTER, "Invalid pointer supplied."},
                           {E_OUTOFMEMORY, "There is not enough memory available."},
                           {kDiskFullResult, "There is not enough space on the disk."}};

TEST(ComPointers, KeepTheReferencesBalanced) {
    MemoryStream stream(kDigits);
    {
        ATL::CComPtr<IStream> first(&stream);
        ATL::CComPtr<IStream> second(first);
        ATL::CComPtr<IStream> third(std::move(second));
        third = third.p;
        EXPECT_EQ(stream.references, 2U);
        EXPECT_EQ(third.CopyTo(&second), S_OK);
        third.Attach(second.Detach());
        first.Release();
        EXPECT_EQ(stream.references, 1U);

        const ATL::CComPtr<IUnknown> unknown(&stream);
        ATL::CComQIPtr<IStream> queried(unknown);
        EXPECT_EQ(queried, &stream);
        stream.query = E_NOINTERFACE;
        queried = unknown;
        EXPECT_FALSE(queried);
        queried = &stream;
        EXPECT_EQ(queried, &stream) << "known by that interface, it is not asked";
        EXPECT_EQ(stream.references, 3U);
        queried = nullptr;
        EXPECT_EQ(stream.references, 2U);
        EXPECT_EQ(queried.QueryInterface(&first), E_POINTER);
    }
    EXPECT_EQ(stream.references, 0U);
}

TEST(ComBuffers, HoldAReferenceOrAreNotGood) {
    MemoryStream stream(kDigits);
    MemoryReader reader(kDigits);
    MemoryWriter writer(kDigits);
    char byte = 'x';
    for (const unsigned held : {1U, 0U}) {
        CTraceSourceBufferIStream source(held ? &stream : nullptr);
        CTraceSourceBufferIStreamReader readerSource(held ? &reader : nullptr);
        CTraceSinkBufferIStream sink(held ? &stream : nullptr);
        CTraceSinkBufferIStreamWriter writerSink(held ? &writer : nullptr);
        const CTraceSinkBufferIStreamWriter copy(writerSink);
        EXPECT_EQ(stream.references + reader.references + writer.references, 5 * held);
        unsigned count = 9;
        for (CTraceSourceBuffer* buffer : std::initializer_list<CTraceSourceBuffer*>{&source, &readerSource}) {
            EXPECT_TRUE(buffer->good() == held && buffer->eof() != held);
            EXPECT_TRUE(buffer->read(&byte, 1, 0, count) == held && buffer->read(&byte, 1, count) == held);
            EXPECT_EQ(count + buffer->position() + buffer->size(), 13 * held);
        }
        for (CTraceSinkBuffer* buffer : std::initializer_list<CTraceSinkBuffer*>{&sink, &writerSink}) {
            EXPECT_EQ(buffer->good(), held);
            const std::uint64_t start = buffer->tellp();
            EXPECT_TRUE(buffer->write(&byte, 1, start, count) == held && buffer->write(&byte, 1, count) == held);
            EXPECT_EQ(count + buffer->tellp() - start, 3 * held);
        }
    }
    for (const Failure& refusal : {kMapped[1], {E_FAIL, "The object does not give its IStream: 0x80004005"}}) {
        stream.query = refusal.result;
        EXPECT_EQ(thrown([&] { CTraceSourceBufferIStream source(&stream); }), refusal.text);
        EXPECT_EQ(thrown([&] { CTraceSinkBufferIStream sink(&stream); }), refusal.text);
    }
    EXPECT_EQ(stream.references + reader.references + writer.references, 0U);
}

template <class Source, class Double> void expectReads(const std::string& name) {
    Double memory(kDigits);
    Source source(&memory);
    char bytes[16];
    unsigned got = 9;
    EXPECT_TRUE(source.read(bytes, 0, got));
    EXPECT_EQ(got, 0U);
    EXPECT_TRUE(source.read(bytes, 3, 4, got) && source.read(bytes + 3, 1, 7, got));
    EXPECT_EQ(std::string(bytes, 4), "4567");
    EXPECT_EQ(memory.moves, 1U) << "moved only when it stands elsewhere";
    EXPECT_EQ(source.size(), 10U);
    EXPECT_FALSE(source.eof());
    EXPECT_EQ(source.position(), 8U);
    memory.transfer = S_FALSE;
    EXPECT_TRUE(source.read(bytes, 16, got)) << "some is enough";
    EXPECT_EQ(got, 2U);
    EXPECT_TRUE(source.eof());
    EXPECT_FALSE(source.read(bytes, 1, got));
    EXPECT_FALSE(source.read(bytes, 1, kFar, got));
    EXPECT_EQ(source.position(), kFar);

    memory.boast = 5;
    EXPECT_TRUE(source.read(bytes, 2, 0, got));
    EXPECT_EQ(got, 2U) << "never more than was asked for";
    memory.transfer = E_FAIL;
    EXPECT_FALSE(source.read(bytes, 2, got));
    memory.transfer = S_OK;
    memory.move[STREAM_SEEK_SET] = E_FAIL;
    EXPECT_FALSE(source.read(bytes, 1, 9, got));
    EXPECT_EQ(got, 0U);
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(source.size(), 10U);
    EXPECT_EQ(takeLog(),
              name + "::size(): Could not rewind input stream to current position. Stream might be corrupted.\n");
    memory.move[STREAM_SEEK_SET] = S_OK;
    memory.move[STREAM_SEEK_END] = E_FAIL;
    EXPECT_EQ(source.size(), 0U);
    EXPECT_TRUE(source.eof());
    EXPECT_EQ(source.position(), 10U);
    memory.move[STREAM_SEEK_CUR] = E_FAIL;
    EXPECT_EQ(source.position(), 0U);
    EXPECT_TRUE(source.read(bytes, 1, 0, got)) << "where it stands is not known, but it can be moved";
    EXPECT_EQ(bytes[0], '0');
    EXPECT_EQ(takeLog(), "");
}

TEST(ComSources, ReadAtPositionsAndSurviveFailures) {
    expectReads<CTraceSourceBufferIStream, MemoryStream>("CTraceSourceBufferIStream");
    expectReads<CTraceSourceBufferIStreamReader, MemoryReader>("CTraceSourceBufferIStreamReader");
}

TEST(ComSources, MayBeAskedForTheirSizeWhileAnotherThreadReads) {
    MemoryStream stream(std::string(20000, 'a'));
    CTraceSourceBufferIStream source(&stream);
    std::thread poller([&] {
        while (!source.eof())
            EXPECT_EQ(source.size(), 20000U);
    });
    char byte = 0;
    unsigned total = 0;
    for (unsigned got = 0; source.read(&byte, 1, got);)
        total += got;
    poller.join();
    EXPECT_EQ(total, 20000U);
}

TEST(IStreamSink, WritesAtPositionsAndThrowsThreeFailures) {
    MemoryStream stream(kDigits);
    CTraceSinkBufferIStream sink(&stream);
    unsigned written = 9;
    EXPECT_TRUE(sink.write("x", 0, written));
    EXPECT_EQ(written, 0U);
    EXPECT_TRUE(sink.write("ab", 2, written) && sink.write("c", 1, 2, written));
    EXPECT_EQ(stream.moves, 0U) << "it stood there";
    EXPECT_FALSE(sink.eof());
    EXPECT_EQ(sink.tellp(), 3U);
    EXPECT_TRUE(sink.write("yz", 2, 9, written) && sink.eof());
    EXPECT_EQ(stream.bytes, "abc345678yz");
    EXPECT_TRUE(sink.write("x", 0, kFar, written)) << "nothing but a move";
    EXPECT_EQ(sink.tellp(), kFar);

    for (const Failure& row : {kMapped[0], kMapped[1], kMapped[2], {E_FAIL, ""}, {S_FALSE, ""}}) {
        for (const unsigned most : {1U, 0U}) {
            stream.transfer = row.result;
            stream.most = most;
            bool taken = most != 0;
            EXPECT_EQ(thrown([&] { taken = sink.write("!!", 2, 0, written); }), row.text);
            EXPECT_EQ(written, most);
            EXPECT_EQ(taken, most != 0) << row.result;
        }
    }
    stream.move[STREAM_SEEK_SET] = E_FAIL;
    EXPECT_FALSE(sink.write("q", 1, 5, written));
    EXPECT_EQ(written, 0U);
    stream.move[STREAM_SEEK_CUR] = E_FAIL;
    EXPECT_EQ(sink.tellp(), 0U);
    EXPECT_TRUE(sink.eof());
    EXPECT_EQ(stream.bytes, "!bc345678yz");
}

TEST(StreamWriterSink, ThrowsEveryFailureAndRefusesAllAfterDiskFull) {
    MemoryWriter writer(kDigits);
    writer.at = 10;
    CTraceSinkBufferIStreamWriter sink(&writer);
    unsigned written = 9;
    const auto write = [&](const char* text) { return sink.write(text, 1, written); };
    EXPECT_TRUE(sink.write("x", 0, written));
    EXPECT_EQ(written, 0U);
    EXPECT_TRUE(sink.write("a", 1, 10, written));
    EXPECT_FALSE(sink.write("b", 1, 10, written));
    EXPECT_EQ(written, 0U);
    EXPECT_TRUE(sink.good() && sink.eof());
    writer.transfer = S_FALSE;
    EXPECT_TRUE(write("c")) << "was taken";
    EXPECT_EQ(sink.tellp(), 12U);
    EXPECT_FALSE(sink.good());
    writer.transfer = S_OK;
    EXPECT_TRUE(write("d") && sink.good());

    writer.most = 0;
    EXPECT_FALSE(write("e"));
    const Failure other{E_FAIL, "CTraceSinkBufferIStreamWriter::write: The writer failed with 0x80004005"};
    for (const Failure& row : {kMapped[0], kMapped[1], other, kMapped[2]}) {
        writer.transfer = row.result;
        EXPECT_EQ(thrown([&] { write("f"); }), row.text);
        EXPECT_FALSE(sink.good());
    }
    writer.transfer = S_OK;
    writer.most = 1;
    EXPECT_FALSE(write("g") || sink.write("g", 0, written)) << "until it is cleared";
    sink.clear();
    EXPECT_TRUE(sink.good() && write("h"));
    EXPECT_EQ(sink.tellp(), 14U);
    EXPECT_EQ(writer.bytes, "0123456789acdh");
    writer.move[STREAM_SEEK_CUR] = E_FAIL;
    EXPECT_EQ(CTraceSinkBufferIStreamWriter(&writer).tellp(), 0U);
}

/// Two pages in a frame, whose length is written far back.
template <class Writer> void record(CTraceSinkBuffer& sink) {
    Writer writer(sink);
    RandomPackets random(5);
    CTraceEnabled enabled(0, SFrameConfig());
    CTraceDisabled disabled;
    writer.put(&enabled);
    while (writer.tellp() < 2 * kPageSize)
        writer.put(random.packet().get());
    writer.put(&disabled);
    writer.flush();
}

template <class Writer, class Sink, class Source, class SinkDouble, class SourceDouble> void expectCarried() {
    MemorySink direct;
    record<Writer>(direct);
    SinkDouble target("");
    Sink sink(&target);
    record<Writer>(sink);
    SourceDouble portions(target.bytes);
    portions.most = 777;
    Source source(&portions);
    CTraceReaderPlain reader(source);
    std::string trace;
    while (const PacketPointer packet{reader.get()})
        trace += wireOf(*packet);
    EXPECT_TRUE(trace == direct.bytes);
    EXPECT_EQ(takeLog(), "");
}

TEST(ComBuffers, CarryAWholeTrace) {
    expectCarried<CTraceWriterPaged, CTraceSinkBufferIStream, CTraceSourceBufferIStream, MemoryStream, MemoryStream>();
    expectCarried<CTraceWriterPlain, CTraceSinkBufferIStreamWriter, CTraceSourceBufferIStreamReader, MemoryWriter,
                  MemoryReader>();
}

TEST(ComBuffers, CarryAWholeTraceOverTheSystemsOwnStream) {
    const ATL::CComPtr<IStream> stream = systemStream();
    if (!stream)
        GTEST_SKIP() << "this system has none";
    MemorySink direct;
    record<CTraceWriterPaged>(direct);
    CTraceSinkBufferIStream sink(stream);
    record<CTraceWriterPaged>(sink);
    EXPECT_EQ(sink.tellp(), direct.bytes.size());
    CTraceSourceBufferIStream source(stream);
    EXPECT_EQ(source.size(), direct.bytes.size());
    std::string carried(direct.bytes.size() + 1, '\0');
    unsigned got = 0;
    EXPECT_TRUE(source.read(carried.data(), static_cast<unsigned>(carried.size()), 0, got));
    EXPECT_TRUE(source.eof());
    EXPECT_TRUE(carried.substr(0, got) == direct.bytes);
    EXPECT_FALSE(source.read(carried.data(), 1, got));

    const ATL::CComPtr<IUnknown> unknown(stream.p);
    EXPECT_TRUE(CTraceSourceBufferIStream(unknown).good()) << "asked for by its identifier";
}

} // namespace
} // namespace Quorvex::test
