#include "quorvex/stream/TraceSinkBufferIStream.h"
#include "quorvex/stream/TraceSinkBufferIStreamWriter.h"
#include "quorvex/stream/TraceSourceBufferIStream.h"
#include "quorvex/stream/TraceSourceBufferIStreamReader.h"
#include "tests/support/Doubles.h"
#include "tests/support/System.h"

#include <gtest/gtest.h>

#include <thread>

namespace Quorvex::test {
namespace {

constexpr std::uint64_t kFar = 0x1'0000'0002; ///< cut to 32 bits it would be 2

/// Ten digits in memory behind the COM interfaces, on the test's stack: counts its references and can be told to fail.
class Memory final : public IStream, public IStreamReader, public IStreamWriter {
    using Size = ULARGE_INTEGER;

public:
    std::string bytes = "0123456789";
    std::uint64_t at = 0;
    unsigned most = ~0U;                  ///< no transfer moves more than that
    unsigned boast = 0;                   ///< added to the count that a read reports
    HRESULT transfer = S_OK;              ///< what Read and Write answer
    HRESULT move[3] = {S_OK, S_OK, S_OK}; ///< what moves from the start, the position and the end answer
    HRESULT query = S_OK;                 ///< with S_OK it gives its IStream, whatever it is asked for
    unsigned moves = 0;                   ///< from the start
    ULONG references = 0;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = query == S_OK ? static_cast<IStream*>(this) : nullptr;
        references += query == S_OK;
        return query;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
    ULONG STDMETHODCALLTYPE Release() override { return --references; }

    HRESULT STDMETHODCALLTYPE Read(char* out, unsigned count, unsigned* got) override {
        const auto from = static_cast<std::size_t>(std::min<std::uint64_t>(at, bytes.size()));
        const auto taken = static_cast<unsigned>(bytes.copy(out, std::min(count, most), from));
        at += taken;
        *got = taken + boast;
        return transfer;
    }
    HRESULT STDMETHODCALLTYPE Write(const char* in, unsigned count, unsigned* written) override {
        *written = std::min(count, most);
        bytes.replace(static_cast<std::size_t>(at), *written, in, *written);
        at += *written;
        return transfer;
    }
    HRESULT STDMETHODCALLTYPE Seek(std::int64_t offset, unsigned origin) override {
        if (SUCCEEDED(move[origin])) {
            const std::uint64_t from[] = {0, at, bytes.size()};
            at = from[origin] + static_cast<std::uint64_t>(offset);
            moves += origin == STREAM_SEEK_SET;
        }
        return move[origin];
    }
    HRESULT STDMETHODCALLTYPE Tell(std::uint64_t* position) override {
        *position = at;
        return move[STREAM_SEEK_CUR];
    }

    HRESULT STDMETHODCALLTYPE Read(void* out, ULONG count, ULONG* got) override {
        unsigned taken = 0;
        const HRESULT result = Read(static_cast<char*>(out), static_cast<unsigned>(count), &taken);
        *got = taken;
        return result;
    }
    HRESULT STDMETHODCALLTYPE Write(const void* in, ULONG count, ULONG* written) override {
        unsigned taken = 0;
        const HRESULT result = Write(static_cast<const char*>(in), static_cast<unsigned>(count), &taken);
        *written = taken;
        return result;
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER offset, DWORD origin, Size* position) override {
        const HRESULT result = Seek(std::int64_t{offset.QuadPart}, static_cast<unsigned>(origin));
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

struct Failure {
    HRESULT result;
    std::string text;
};
const Failure kMapped[] = {{E_POINTER, "Invalid pointer supplied."},
                           {E_OUTOFMEMORY, "There is not enough memory available."},
                           {kDiskFullResult, "There is not enough space on the disk."}};

/// The result by which a COM host reports what the step throws; S_OK when it throws nothing.
template <class Step> HRESULT resultOf(Step&& step) {
    try {
        step();
        return S_OK;
    } catch (const CQVXException& exception) {
        return static_cast<HRESULT>(CQVXException::HResultFromException(exception));
    }
}

TEST(ComPointers, KeepTheReferencesBalanced) {
    Memory stream;
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

        const ATL::CComPtr<IUnknown> unknown(static_cast<IStream*>(&stream));
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
    Memory stream;
    for (const unsigned held : {1U, 0U}) {
        CTraceSourceBufferIStream source(held ? &stream : nullptr);
        CTraceSourceBufferIStreamReader readerSource(held ? &stream : nullptr);
        CTraceSinkBufferIStream sink(held ? &stream : nullptr);
        CTraceSinkBufferIStreamWriter writerSink(held ? &stream : nullptr);
        const CTraceSinkBufferIStreamWriter copy(writerSink);
        EXPECT_EQ(stream.references, 5 * held);
        for (CTraceSourceBuffer* buffer : std::initializer_list<CTraceSourceBuffer*>{&source, &readerSource}) {
            buffer->clear();
            buffer->flush();
            EXPECT_TRUE(buffer->good() == held && buffer->eof() != held);
            EXPECT_EQ(Steps({readFrom(*buffer, 1, 1), readFrom(*buffer, 1)}), held ? Steps({"1", "2"}) : Steps(2, "!"));
            EXPECT_EQ(buffer->position() + buffer->size(), 13 * held);
        }
        for (CTraceSinkBuffer* buffer : std::initializer_list<CTraceSinkBuffer*>{&sink, &writerSink}) {
            buffer->clear();
            EXPECT_EQ(buffer->good(), held);
            const std::uint64_t start = buffer->tellp();
            EXPECT_EQ(Steps({writeTo(*buffer, "x", start), writeTo(*buffer, "x")}), Steps(2, held ? "1" : "0!"));
            EXPECT_EQ(buffer->tellp() - start, 2 * held);
        }
    }
    for (const HRESULT refusal : {kMapped[1].result, E_FAIL, E_NOINTERFACE}) {
        stream.query = refusal;
        EXPECT_EQ(resultOf([&] { CTraceSourceBufferIStream source(&stream); }), refusal);
        EXPECT_EQ(resultOf([&] { CTraceSinkBufferIStream sink(&stream); }), refusal);
    }
    EXPECT_EQ(stream.references, 0U);
}

template <class Source> void expectReads(const std::string& name) {
    Memory memory;
    Source source(&memory);
    EXPECT_EQ((Steps{readFrom(source, 0), readFrom(source, 3, 4), readFrom(source, 1, 7)}), (Steps{"", "456", "7"}));
    EXPECT_EQ(memory.moves, 1U) << "moved only when it stands elsewhere";
    EXPECT_FALSE(source.eof());
    EXPECT_TRUE(source.size() == 10 && source.position() == 8);
    memory.transfer = S_FALSE;
    EXPECT_EQ(readFrom(source, 16), "89") << "some is enough";
    EXPECT_TRUE(source.eof());
    EXPECT_EQ((Steps{readFrom(source, 1), readFrom(source, 1, kFar)}), (Steps{"!", "!"}));
    EXPECT_EQ(source.position(), kFar);

    memory.boast = 5;
    EXPECT_EQ(readFrom(source, 2, 0), "01") << "never more than was asked for";
    memory.transfer = E_FAIL;
    EXPECT_EQ(readFrom(source, 2), "!");
    memory.transfer = S_OK;
    memory.move[STREAM_SEEK_SET] = E_FAIL;
    EXPECT_EQ(readFrom(source, 1, 9), "!");
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
    EXPECT_EQ(readFrom(source, 1, 0), "0") << "where it stands is not known, but it can be moved";
    EXPECT_EQ(takeLog(), "");
}

TEST(ComSources, ReadAtPositionsAndSurviveFailures) {
    expectReads<CTraceSourceBufferIStream>("CTraceSourceBufferIStream");
    expectReads<CTraceSourceBufferIStreamReader>("CTraceSourceBufferIStreamReader");
}

TEST(ComSources, MayBeAskedForTheirSizeWhileAnotherThreadReads) {
    Memory stream;
    stream.bytes.assign(20000, 'a');
    CTraceSourceBufferIStream source(&stream);
    std::thread poller([&] {
        while (!source.eof())
            EXPECT_EQ(source.size(), 20000U);
    });
    unsigned total = 0;
    while (readFrom(source, 1) == "a")
        ++total;
    poller.join();
    EXPECT_EQ(total, 20000U);
}

TEST(IStreamSink, WritesAtPositionsAndThrowsThreeFailures) {
    Memory stream;
    CTraceSinkBufferIStream sink(&stream);
    EXPECT_EQ((Steps{writeTo(sink, ""), writeTo(sink, "ab"), writeTo(sink, "c", 2)}), (Steps{"0", "2", "1"}));
    EXPECT_EQ(stream.moves, 0U) << "it stood there";
    EXPECT_FALSE(sink.eof());
    EXPECT_EQ(sink.tellp(), 3U);
    EXPECT_EQ(writeTo(sink, "yz", 9), "2");
    EXPECT_TRUE(sink.eof());
    EXPECT_EQ(stream.bytes, "abc345678yz");
    EXPECT_EQ(writeTo(sink, "", kFar), "0") << "nothing but a move";
    EXPECT_EQ(sink.tellp(), kFar);

    for (const Failure& row : {kMapped[0], kMapped[1], kMapped[2], {E_FAIL, ""}, {S_FALSE, ""}}) {
        for (const unsigned most : {1U, 0U}) {
            stream.transfer = row.result;
            stream.most = most;
            bool taken = most != 0;
            unsigned written = 9;
            EXPECT_EQ(thrownBy([&] { taken = sink.write("!!", 2, 0, written); }), row.text);
            EXPECT_EQ(written, most);
            EXPECT_EQ(taken, most != 0) << row.result;
        }
    }
    stream.move[STREAM_SEEK_SET] = E_FAIL;
    EXPECT_EQ(writeTo(sink, "q", 5), "0!");
    stream.move[STREAM_SEEK_CUR] = E_FAIL;
    EXPECT_EQ(sink.tellp(), 0U);
    EXPECT_TRUE(sink.eof());
    EXPECT_EQ(stream.bytes, "!bc345678yz");
}

TEST(StreamWriterSink, ThrowsEveryFailureAndRefusesAllAfterDiskFull) {
    Memory writer;
    writer.at = 10;
    CTraceSinkBufferIStreamWriter sink(&writer);
    EXPECT_EQ((Steps{writeTo(sink, ""), writeTo(sink, "a", 10), writeTo(sink, "b", 10)}), (Steps{"0", "1", "0!"}));
    EXPECT_TRUE(sink.good() && sink.eof());
    writer.transfer = S_FALSE;
    EXPECT_EQ(writeTo(sink, "c"), "1") << "was taken";
    EXPECT_EQ(sink.tellp(), 12U);
    EXPECT_FALSE(sink.good());
    writer.transfer = S_OK;
    EXPECT_EQ(writeTo(sink, "d"), "1");
    EXPECT_TRUE(sink.good());

    writer.most = 0;
    EXPECT_EQ(writeTo(sink, "e"), "0!");
    for (const HRESULT failure : {kMapped[0].result, kMapped[1].result, E_FAIL, E_UNEXPECTED, kMapped[2].result}) {
        writer.transfer = failure;
        EXPECT_EQ(resultOf([&] { writeTo(sink, "f"); }), failure);
        EXPECT_FALSE(sink.good());
    }
    writer.transfer = S_OK;
    writer.most = 1;
    EXPECT_EQ((Steps{writeTo(sink, "g"), writeTo(sink, "")}), (Steps{"0!", "0!"})) << "until it is cleared";
    sink.clear();
    EXPECT_TRUE(sink.good());
    EXPECT_EQ(writeTo(sink, "h"), "1");
    EXPECT_EQ(sink.tellp(), 14U);
    EXPECT_EQ(writer.bytes, "0123456789acdh");
    writer.move[STREAM_SEEK_CUR] = E_FAIL;
    EXPECT_EQ(CTraceSinkBufferIStreamWriter(&writer).tellp(), 0U);
}

TEST(ComBuffers, WorkOverTheSystemsOwnStream) {
    const ATL::CComPtr<IStream> stream = systemStream();
    if (!stream)
        GTEST_SKIP() << "this system has none";
    CTraceSinkBufferIStream sink(stream);
    EXPECT_EQ((Steps{writeTo(sink, "0123456789"), writeTo(sink, "ab", 3), writeTo(sink, "c")}),
              (Steps{"10", "2", "1"}));
    EXPECT_EQ(sink.tellp(), 6U);
    const ATL::CComPtr<IUnknown> unknown(stream.p); // asked for by its identifier
    CTraceSourceBufferIStream source(unknown);
    EXPECT_EQ(source.size(), 10U);
    EXPECT_EQ((Steps{readFrom(source, 11, 0), readFrom(source, 1)}), (Steps{"012abc6789", "!"}));
    EXPECT_TRUE(source.eof());
}

} // namespace
} // namespace Quorvex::test
