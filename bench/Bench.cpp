// The hot paths beside the machine's own limits, in one run: only ratios between rows of the same run mean anything.

#include "quorvex/quorvex.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using namespace Quorvex;

/// Takes everything and keeps nothing.
class NullSink : public CTraceSinkBuffer {
public:
    bool write(const char*, unsigned count, std::uint64_t, unsigned& written) override {
        written = count;
        return true;
    }
    bool write(const char*, unsigned count, unsigned& written) override {
        written = count;
        return true;
    }
    bool eof() override { return false; }
    bool good() override { return true; }
    void flush() override {}
    void clear() override {}
    std::uint64_t tellp() override { return 0; }
};

/// Hands out the same bytes, from memory.
class MemorySource : public CTraceSourceBuffer {
public:
    explicit MemorySource(const std::string& bytes) : m_bytes(bytes) {}
    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override {
        m_at = position;
        return read(dst, count, got);
    }
    bool read(char* dst, unsigned count, unsigned& got) override {
        got = static_cast<unsigned>(std::min<std::uint64_t>(count, m_bytes.size() - m_at));
        std::memcpy(dst, m_bytes.data() + m_at, got);
        m_at += got;
        return got != 0 || count == 0;
    }
    bool eof() override { return m_at == m_bytes.size(); }
    bool good() override { return true; }
    void clear() override {}
    std::uint64_t position() override { return m_at; }
    std::uint64_t size() override { return m_bytes.size(); }
    void flush() override {}
    void rewind() { m_at = 0; }

private:
    const std::string& m_bytes;
    std::uint64_t m_at = 0;
};

void perPacket(benchmark::State& state, double bytes) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * bytes));
}

struct Virtual {
    virtual ~Virtual() = default;
    virtual unsigned call(unsigned x) = 0;
};
struct OneMore : Virtual {
    unsigned call(unsigned x) override { return x + 1; }
};
struct TwoMore : Virtual {
    unsigned call(unsigned x) override { return x + 2; }
};

/// A packet's bytes copied into a page, and one virtual call.
void limitCopyAndCall(benchmark::State& state) {
    std::vector<char> page(kPageSize);
    char packet[30] = {};
    OneMore one;
    TwoMore two;
    Virtual* target = state.range(0) > 1 ? static_cast<Virtual*>(&two) : &one;
    unsigned at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(target);
        benchmark::DoNotOptimize(target->call(at));
        benchmark::DoNotOptimize(packet);
        if (at + sizeof packet > kPageSize)
            at = 0;
        std::memcpy(page.data() + at, packet, sizeof packet);
        at += sizeof packet;
        benchmark::ClobberMemory();
    }
    perPacket(state, sizeof packet);
}
BENCHMARK(limitCopyAndCall)->Arg(1);

void limitAllocation(benchmark::State& state) {
    for (auto _ : state) {
        void* block = ::operator new(sizeof(CFunctionEnter));
        benchmark::DoNotOptimize(block);
        ::operator delete(block);
    }
    perPacket(state, sizeof(CFunctionEnter));
}
BENCHMARK(limitAllocation);

void limitClock(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(platform::counterTick());
    perPacket(state, 0);
}
BENCHMARK(limitClock);

template <class Writer> void writePackets(benchmark::State& state) {
    NullSink sink;
    Writer writer(sink);
    CFunctionEnter enter(CCoreContext(1, 2, 3, 4), 7);
    for (auto _ : state) {
        CPacket* packet = &enter;
        benchmark::DoNotOptimize(packet);
        writer.put(packet);
    }
    perPacket(state, enter.StreamSize());
}
BENCHMARK(writePackets<CTraceWriterPlain>);
BENCHMARK(writePackets<CTraceWriterPaged>);

const std::string& someTrace() {
    static const std::string trace = [] {
        std::ostringstream out;
        CTraceSinkBufferStream sink(out);
        CTraceWriterPlain writer(sink);
        for (unsigned i = 0; i < 100'000; ++i) {
            CFunctionEnter enter(CCoreContext(i, i % 4, i % 8, kUnknown64), i % 100);
            CRelExecInsn step(static_cast<std::uint8_t>(i), 4);
            writer.put(&enter);
            writer.put(&step);
        }
        writer.flush();
        return out.str();
    }();
    return trace;
}

void readPackets(benchmark::State& state) {
    MemorySource source(someTrace());
    auto reader = std::make_unique<CTraceReaderPlain>(source);
    for (auto _ : state) {
        CPacket* packet = reader->get();
        if (!packet) {
            source.rewind();
            reader = std::make_unique<CTraceReaderPlain>(source);
            packet = reader->get();
        }
        benchmark::DoNotOptimize(packet);
        CPacketFactory::releaseCPacket(&packet);
    }
    perPacket(state, static_cast<double>(someTrace().size()) / 200'000);
}
BENCHMARK(readPackets);

void skipPackets(benchmark::State& state) {
    MemorySource source(someTrace());
    auto reader = std::make_unique<CTraceReaderPlain>(source);
    for (auto _ : state) {
        if (!reader->skip()) {
            source.rewind();
            reader = std::make_unique<CTraceReaderPlain>(source);
        }
    }
    perPacket(state, static_cast<double>(someTrace().size()) / 200'000);
}
BENCHMARK(skipPackets);

/// What the system takes to store a packet's bytes in a new file, page by page.
void limitStore(benchmark::State& state) {
    const std::string path = (std::filesystem::temp_directory_path() / "quorvex_bench.tmp").string();
    {
        CTraceSinkBufferFile file;
        file.open(path.c_str(), false);
        const std::vector<char> page(kPageSize);
        unsigned at = 0;
        unsigned written = 0;
        for (auto _ : state) {
            at += 30;
            if (at > kPageSize) {
                file.write(page.data(), kPageSize, written);
                at = 0;
            }
        }
    }
    std::filesystem::remove(path);
    perPacket(state, 30);
}
BENCHMARK(limitStore);

/// Records without the storing: the page is begun anew before it is full.
template <class Record> void recordInOnePage(benchmark::State& state, Record&& record) {
    CQVXInstrumentingStream* stream = CQVXInstrumentingStream::get_Instance();
    const std::uint64_t begin = stream->tellp();
    for (auto _ : state) {
        record(*stream);
        if (stream->tellp() > begin + kPageSize / 2) [[unlikely]]
            stream->seekp(begin);
    }
    perPacket(state, 0);
}

/// What a traced function costs, entering and leaving.
void recordScope(benchmark::State& state) {
    recordInOnePage(state, [](CQVXInstrumentingStream&) { QUORVEX_TRACE_SCOPE("scope"); });
}
BENCHMARK(recordScope);

void putEnter(CQVXInstrumentingStream& stream) {
    CFunctionEnter enter(stream.Context(), 7);
    stream.put(&enter);
}

/// One enter packet in an instrumented thread, with the clock read.
void recordEnter(benchmark::State& state) {
    recordInOnePage(state, putEnter);
}
BENCHMARK(recordEnter);

/// The same in a thread whose trace goes to a file in the temporary directory.
void recordEnterToFile(benchmark::State& state) {
    std::string path;
    std::thread([&] {
        CQVXInstrumentingStream* stream = CQVXInstrumentingStream::get_Instance();
        path = stream->path();
        for (auto _ : state)
            putEnter(*stream);
    }).join();
    perPacket(state, 0);
    // Its blocks are given back, or what the disk has to store slows down the next row.
    std::filesystem::resize_file(path, 0);
}
BENCHMARK(recordEnterToFile)->Iterations(2'000'000);

class NullBuffer : public std::streambuf {
protected:
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
};

void tableRows(benchmark::State& state) {
    NullBuffer buffer;
    std::ostream out(&buffer);
    CPacketPlain table(out, true, 0);
    CFunctionEnter enter(CCoreContext(123456789012, 2, 4711, kUnknown64), 7);
    for (auto _ : state)
        table.writeCPacket(16, enter);
    perPacket(state, enter.StreamSize());
}
BENCHMARK(tableRows);

void readRows(benchmark::State& state) {
    std::ostringstream out;
    CPacketPlain table(out, true, 0);
    table.SetParsable(true);
    CFunctionEnter enter(CCoreContext(123456789012, 2, 4711, kUnknown64), 7);
    for (unsigned i = 0; i < 1000; ++i)
        table.writeCPacket(16, enter);
    std::istringstream in(out.str());
    TraceTextReader reader(in);
    for (auto _ : state) {
        CPacket* packet = reader.get();
        if (!packet) {
            in.clear();
            in.seekg(0);
            packet = reader.get();
        }
        CPacketFactory::releaseCPacket(&packet);
    }
    perPacket(state, static_cast<double>(in.str().size()) / 1000);
}
BENCHMARK(readRows);

/// Instructions whose contexts need a sync packet now and then, as those of a real program.
CCoreContext stepOf(std::uint64_t i) {
    return CCoreContext(i, 0, 1, 0x1000 + 4 * (i % 40) + 0x1000 * (i / 15 % 7));
}

void compressPackets(benchmark::State& state) {
    NullSink sink;
    CTraceWriterPlain writer(sink);
    CTraceCompressor compressor(writer);
    std::uint64_t i = 0;
    for (auto _ : state) {
        CPacket* packet = new CExecInsn(stepOf(i++));
        compressor.forward(packet);
    }
    perPacket(state, CPacketHeader::Len() + CExecInsn::Len());
}
BENCHMARK(compressPackets);

void decompressPackets(benchmark::State& state) {
    struct Sink : NullSink {
        std::string bytes;
        bool write(const char* src, unsigned count, unsigned& written) override {
            bytes.append(src, count);
            return NullSink::write(src, count, written);
        }
    } sink;
    CTraceWriterPlain writer(sink);
    CTraceCompressor compressor(writer);
    for (std::uint64_t i = 0; i < 100'000; ++i) {
        CPacket* packet = new CExecInsn(stepOf(i));
        compressor.forward(packet);
    }
    compressor.flush();
    MemorySource source(sink.bytes);
    CTraceReaderPlain reader(source);
    CTraceDecompressor decompressor(reader, true, true);
    for (auto _ : state) {
        CPacket* packet = decompressor.get();
        if (!packet) {
            source.rewind();
            packet = decompressor.get();
        }
        CPacketFactory::releaseCPacket(&packet);
    }
    perPacket(state, CPacketHeader::Len() + CExecInsn::Len());
}
BENCHMARK(decompressPackets);

} // namespace

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    const fs::path directory =
        fs::temp_directory_path() / ("quorvex_bench_" + std::to_string(Quorvex::platform::currentThreadId()));
    fs::create_directory(directory);
    setenv("QVX_TRACEDIR", directory.c_str(), 1);
    unsetenv("QVX_TRACEFILENAME");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    fs::remove_all(directory);
}
