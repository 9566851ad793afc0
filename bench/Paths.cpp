#include "bench/Paths.h"

#include "bench/Traces.h"
#include "quorvex/platform/Clock.h"
#include "quorvex/quorvex.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <list>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace bench {

namespace {

using namespace Quorvex;

/// The compiler takes the value for used, and all memory for changed.
template <class T> void keep(const T& value) {
    asm volatile("" : : "r"(&value) : "memory");
}

/// A path of steps that are all alike, a packet each.
template <class Step> class Steps final : public Path {
public:
    explicit Steps(unsigned packets) : m_step(packets) {}
    void run(unsigned packets) override {
        for (unsigned i = 0; i < packets; ++i)
            m_step();
    }
    double bytes() const override { return m_step.bytes(); }

private:
    Step m_step;
};

/// Takes everything and keeps nothing.
class NullSink : public CTraceSinkBuffer {
public:
    bool write(const char* src, unsigned count, std::uint64_t, unsigned& written) override {
        return write(src, count, written);
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

class MemorySink : public NullSink {
public:
    using NullSink::write;
    bool write(const char* src, unsigned count, unsigned& written) override {
        m_bytes.append(src, count);
        return NullSink::write(src, count, written);
    }
    std::string take() { return std::move(m_bytes); }

private:
    std::string m_bytes;
};

struct NullBuffer : std::streambuf {
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }
};

class NullStream : private NullBuffer, public std::ostream {
public:
    NullStream() : std::ostream(static_cast<NullBuffer*>(this)) {}
};

/// Hands out the same bytes, from memory.
class MemorySource : public CTraceSourceBuffer {
public:
    explicit MemorySource(std::string bytes) : m_bytes(std::move(bytes)) {}
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
    const std::string m_bytes;
    std::uint64_t m_at = 0;
};

struct Virtual {
    virtual ~Virtual() = default;
    virtual unsigned call(unsigned x) = 0;
};
/// Of more than one sort, or the compiler knows whom it calls.
template <unsigned kMore> struct Adder : Virtual {
    unsigned call(unsigned x) override { return x + kMore; }
};

class LimitCopyAndCall {
public:
    explicit LimitCopyAndCall(unsigned) : m_page(kPageSize) { keep(m_two); }
    void operator()() {
        keep(m_target);
        keep(m_target->call(m_at));
        keep(m_packet);
        if (m_at + sizeof m_packet > kPageSize)
            m_at = 0;
        std::memcpy(m_page.data() + m_at, m_packet, sizeof m_packet);
        m_at += sizeof m_packet;
        keep(m_page);
    }
    static double bytes() { return sizeof m_packet; }

private:
    std::vector<char> m_page;
    char m_packet[30] = {};
    Adder<1> m_one;
    Adder<2> m_two;
    Virtual* m_target = &m_one;
    unsigned m_at = 0;
};

/// Beyond the caches that one core has for itself.
class LimitCopy {
public:
    explicit LimitCopy(unsigned) : m_from(kSize, 'x'), m_to(kSize) {}
    void operator()() {
        std::memcpy(m_to.data() + m_at, m_from.data() + m_at, kBlock);
        keep(m_to);
        m_at = (m_at + kBlock) % kSize;
    }
    static double bytes() { return kBlock; }

private:
    static constexpr std::size_t kSize = 0x400000, kBlock = 0x10000;
    std::vector<char> m_from, m_to;
    std::size_t m_at = 0;
};

struct LimitAllocation {
    explicit LimitAllocation(unsigned) {}
    void operator()() {
        void* block = ::operator new(sizeof(CFunctionEnter));
        keep(block);
        ::operator delete(block);
    }
    static double bytes() { return sizeof(CFunctionEnter); }
};

/// What nobody who empties a list of a block's packets by pop_front() gets around.
class LimitListNodes {
public:
    explicit LimitListNodes(unsigned) {}
    void operator()() {
        if (m_packets.empty()) {
            for (unsigned i = 0; i < kPacketsOfBlock; ++i)
                m_packets.push_back(nullptr);
        }
        m_packets.pop_front();
    }
    static double bytes() { return sizeof(CPacket*); }

private:
    static constexpr unsigned kPacketsOfBlock = kBlockSize / 18; ///< as in mixedTrace
    std::list<CPacket*> m_packets;
};

struct LimitClock {
    explicit LimitClock(unsigned) { CQVXInstrumentingStream::get_Instance(); } // starts it
    void operator()() { keep(platform::g_recordingClock.now()); }
    static double bytes() { return 0; }
};

class LimitStore {
public:
    explicit LimitStore(unsigned)
        : m_path((std::filesystem::temp_directory_path() / "quorvex_bench.tmp").string()), m_page(kPageSize) {
        m_file.open(m_path, false);
    }
    LimitStore(const LimitStore&) = delete;
    ~LimitStore() {
        m_file.close();
        std::filesystem::remove(m_path);
    }
    void operator()() {
        m_at += 30;
        if (m_at <= kPageSize)
            return;
        unsigned written = 0;
        m_file.write(m_page.data(), kPageSize, written);
        m_at = 0;
    }
    static double bytes() { return 30; }

private:
    const std::string m_path;
    const std::vector<char> m_page;
    unsigned m_at = 0;
    CTraceSinkBufferFile m_file;
};

template <class Writer> class WritePackets {
public:
    explicit WritePackets(unsigned) : m_writer(m_sink) {}
    void operator()() {
        CPacket* packet = &m_enter;
        keep(packet);
        m_writer.put(packet);
    }
    double bytes() const { return m_enter.StreamSize(); }

private:
    NullSink m_sink;
    Writer m_writer;
    CFunctionEnter m_enter{CCoreContext(1, 2, 3, 4), 7};
};

/// A plain trace of function enters and relative instructions in turn.
std::string mixedTrace(unsigned packets) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    for (unsigned i = 0; i < packets / 2; ++i) {
        CFunctionEnter enter(CCoreContext(i, i % 4, i % 8, kUnknown64), i % 100);
        CRelExecInsn step(static_cast<std::uint8_t>(i), 4);
        writer.put(&enter);
        writer.put(&step);
    }
    writer.flush();
    return sink.take();
}

/// Reads a trace in memory again and again.
class Reading {
public:
    Reading(std::string trace, unsigned packets)
        : m_bytes(static_cast<double>(trace.size()) / packets), m_source(std::move(trace)) {
        rewind();
    }
    explicit Reading(unsigned packets) : Reading(mixedTrace(packets), packets) {}
    double bytes() const { return m_bytes; }

protected:
    CTraceReaderPlain& reader() { return *m_reader; }
    void rewind() {
        m_source.rewind();
        m_reader.emplace(m_source);
    }
    CPacket* get() {
        CPacket* packet = m_reader->get();
        if (!packet) {
            rewind();
            packet = m_reader->get();
        }
        return packet;
    }

private:
    double m_bytes;
    MemorySource m_source;
    std::optional<CTraceReaderPlain> m_reader;
};

struct ReadPackets : Reading {
    using Reading::Reading;
    void operator()() {
        CPacket* packet = get();
        keep(packet);
        CPacketFactory::releaseCPacket(&packet);
    }
};

class ReadLists : public Reading {
public:
    using Reading::Reading;
    ~ReadLists() { CPacketFactory::release(m_packets); }
    void operator()() {
        if (m_packets.empty() && !reader().get(m_packets)) {
            rewind();
            reader().get(m_packets);
        }
        CPacketFactory::releaseCPacket(&m_packets.front());
        m_packets.pop_front();
    }

private:
    std::list<CPacket*> m_packets;
};

class ReleaseLists : public Reading {
public:
    using Reading::Reading;
    ~ReleaseLists() { CPacketFactory::release(m_packets); }
    void operator()() {
        if (m_left == 0) {
            CPacketFactory::release(m_packets);
            if (!reader().get(m_packets)) {
                rewind();
                reader().get(m_packets);
            }
            m_left = m_packets.size();
        }
        --m_left;
    }

private:
    std::list<CPacket*> m_packets;
    std::size_t m_left = 0;
};

struct SkipPackets : Reading {
    using Reading::Reading;
    void operator()() {
        if (reader().skip())
            return;
        rewind();
        reader().skip();
    }
};

class CompressPackets {
public:
    explicit CompressPackets(unsigned) : m_writer(m_sink), m_compressor(m_writer) {}
    void operator()() {
        CPacket* packet = new CExecInsn(stepOf(m_next++));
        m_compressor.forward(packet);
    }
    static double bytes() { return CPacketHeader::Len() + CExecInsn::Len(); }

private:
    NullSink m_sink;
    CTraceWriterPlain m_writer;
    CTraceCompressor m_compressor;
    unsigned m_next = 0;
};

std::string instructions(unsigned packets) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    for (unsigned i = 0; i < packets; ++i) {
        CExecInsn step = stepOf(i);
        writer.put(&step);
    }
    writer.flush();
    return sink.take();
}

/// What is read, made relative and written.
template <class Source> std::string compressed(Source&& get, unsigned packets) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    CTraceCompressor compressor(writer);
    for (unsigned i = 0; i < packets; ++i) {
        CPacket* packet = get();
        compressor.forward(packet);
    }
    compressor.flush();
    return sink.take();
}

class DecompressPackets {
public:
    explicit DecompressPackets(unsigned packets)
        : m_source(compressed([i = 0U]() mutable { return new CExecInsn(stepOf(i++)); }, packets)) {}
    void operator()() {
        CPacket* packet = m_decompressor.get();
        if (!packet) {
            m_source.rewind();
            packet = m_decompressor.get();
        }
        CPacketFactory::releaseCPacket(&packet);
    }
    static double bytes() { return CompressPackets::bytes(); }

private:
    MemorySource m_source;
    CTraceReaderPlain m_reader{m_source};
    CTraceDecompressor m_decompressor{m_reader, true, true};
};

/// Absolute instructions are read, made relative and written; that is read, made absolute and written.
class ConvertThereAndBack final : public Path, private Reading {
public:
    explicit ConvertThereAndBack(unsigned packets) : Reading(instructions(packets), packets) {}
    void run(unsigned packets) override {
        MemorySource source(compressed([this] { return get(); }, packets));
        CTraceReaderPlain reader(source);
        CTraceDecompressor decompressor(reader, true, true);
        CTraceWriterPlain writer(m_sink);
        while (CPacket* packet = decompressor.get()) {
            writer.put(packet);
            CPacketFactory::releaseCPacket(&packet);
        }
        writer.flush();
    }
    double bytes() const override { return Reading::bytes(); }

private:
    NullSink m_sink;
};

CFunctionEnter someEnter() {
    return CFunctionEnter(CCoreContext(123456789012, 2, 4711, kUnknown64), 7);
}

class TableRows {
public:
    explicit TableRows(unsigned) : m_table(m_out, true, 0) {}
    void operator()() { m_table.writeCPacket(16, m_enter); }
    double bytes() const { return m_enter.StreamSize(); }

private:
    NullStream m_out;
    CPacketPlain m_table;
    CFunctionEnter m_enter = someEnter();
};

class ReadRows {
public:
    explicit ReadRows(unsigned packets) {
        std::ostringstream out;
        CPacketPlain table(out, true, 0);
        table.SetParsable(true);
        CFunctionEnter enter = someEnter();
        for (unsigned i = 0; i < packets; ++i)
            table.writeCPacket(16, enter);
        m_bytes = static_cast<double>(out.view().size()) / packets;
        m_in.str(std::move(out).str());
    }
    void operator()() {
        CPacket* packet = m_reader.get();
        if (!packet) {
            m_in.clear();
            m_in.seekg(0);
            packet = m_reader.get();
        }
        CPacketFactory::releaseCPacket(&packet);
    }
    double bytes() const { return m_bytes; }

private:
    double m_bytes;
    std::istringstream m_in;
    TraceTextReader m_reader{m_in};
};

/// A whole trace of calls.
std::string callTrace(unsigned packets) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    forCallPackets(packets, [&writer](CPacket& packet) { writer.put(&packet); });
    writer.flush();
    return sink.take();
}

/// The packets of one trace in the order of time, each tick looked at whether it can be.
class MergePackets {
public:
    explicit MergePackets(unsigned packets)
        : m_trace(callTrace(packets)), m_bytes(static_cast<double>(m_trace.view().size()) / packets) {}
    void operator()() {
        PacketPointer packet = m_merged ? m_merged->next() : nullptr;
        if (packet)
            return;
        m_trace.clear();
        m_trace.seekg(0);
        m_merged.emplace();
        m_merged->add(std::make_unique<TraceFile>("trace", &m_trace));
        m_merged->next();
    }
    double bytes() const { return m_bytes; }

private:
    std::istringstream m_trace;
    double m_bytes;
    std::optional<Merged> m_merged;
};

/// Packets of calls, with what defines them, to a writer for viewers; the file is written at their end.
template <class Writer> class ExportPackets {
public:
    explicit ExportPackets(unsigned packets) {
        forCallPackets(packets, [this](CPacket& packet) {
            m_packets.push_back(CPacketFactory::duplicate(&packet));
            m_bytes += packet.StreamSize();
        });
        m_bytes /= packets;
        m_next = m_packets.begin();
    }
    ExportPackets(const ExportPackets&) = delete;
    ~ExportPackets() { CPacketFactory::release(m_packets); }
    void operator()() {
        if (!m_writer)
            m_writer.emplace(m_out);
        m_writer->put(*m_next);
        if (++m_next != m_packets.end())
            return;
        m_writer->flush();
        m_writer.reset();
        m_next = m_packets.begin();
    }
    double bytes() const { return m_bytes; }

private:
    NullStream m_out;
    std::optional<Writer> m_writer;
    std::list<CPacket*> m_packets;
    std::list<CPacket*>::const_iterator m_next;
    double m_bytes = 0;
};

/// Records without the storing: the page is begun anew before it is full.
class Recording {
public:
    explicit Recording(unsigned) {}
    static double bytes() { return 0; }

protected:
    CQVXInstrumentingStream& stream() { return *m_stream; }
    void stayInPage() {
        if (m_stream->tellp() > m_begin + kPageSize / 2) [[unlikely]]
            m_stream->seekp(m_begin);
    }

private:
    CQVXInstrumentingStream* m_stream = CQVXInstrumentingStream::get_Instance();
    std::uint64_t m_begin = m_stream->tellp();
};

struct RecordScope : Recording {
    using Recording::Recording;
    void operator()() {
        { QUORVEX_TRACE_SCOPE("scope"); }
        stayInPage();
    }
};

struct RecordNothing : Recording {
    explicit RecordNothing(unsigned packets) : Recording(packets) { quorvex_set_recording(0); }
    ~RecordNothing() { quorvex_set_recording(1); }
    void operator()() { QUORVEX_TRACE_SCOPE("scope"); }
};

struct RecordCounter : Recording {
    using Recording::Recording;
    void operator()() {
        QUORVEX_TRACE_COUNTER("counter", "", 1);
        stayInPage();
    }
};

/// Nobody else has the mutex: what looking for waits costs.
struct RecordLock : Recording {
    using Recording::Recording;
    void operator()() { QUORVEX_LOCK(m_mutex); }

private:
    std::mutex m_mutex;
};

struct RecordEnter : Recording {
    using Recording::Recording;
    void operator()() {
        CFunctionEnter enter(stream().Context(), 7);
        stream().put(&enter);
        stayInPage();
    }
};

template <class AnyPath> std::unique_ptr<Path> whole(unsigned packets) {
    return std::make_unique<AnyPath>(packets);
}
template <class Step> constexpr auto steps = whole<Steps<Step>>;

constexpr PathRow kPaths[] = {
    {"limitCopyAndCall", "memcpy of a packet's 30 bytes into a page, and one virtual call", steps<LimitCopyAndCall>,
     false},
    {"limitCopy", "memcpy of 64 KiB, on through 4 MiB", steps<LimitCopy>, false},
    {"limitAllocation", "allocating and freeing a packet's memory", steps<LimitAllocation>, false},
    {"limitListNodes", "a node of a list that is as long as a block has packets, and emptied by pop_front()",
     steps<LimitListNodes>, false},
    {"limitClock", "reading the clock by which recording tells the time", steps<LimitClock>, false},
    {"limitStore", "storing 30 bytes in a new file, page by page", steps<LimitStore>, false},
    {"writePackets/plain", "a function-enter packet into the plain writer", steps<WritePackets<CTraceWriterPlain>>,
     true},
    {"writePackets/paged", "the same into the paged writer", steps<WritePackets<CTraceWriterPaged>>, true},
    {"readPackets", "a packet read into a heap object and released", steps<ReadPackets>, true},
    {"readLists", "the same, a block's packets in one list, emptied by pop_front()", steps<ReadLists>, true},
    {"readLists/released", "the same, the list released as a whole", steps<ReleaseLists>, false},
    {"skipPackets", "a packet stepped over by its header", steps<SkipPackets>, true},
    {"compressPackets", "an instruction made, made relative and written", steps<CompressPackets>, false},
    {"decompressPackets", "a relative instruction read and made absolute", steps<DecompressPackets>, false},
    {"convertThereAndBack",
     "an absolute instruction read, made relative and written; that read, made absolute and written",
     whole<ConvertThereAndBack>, true},
    {"tableRows", "a row of the plain table", steps<TableRows>, true},
    {"readRows", "a row of the plain table read back into a packet", steps<ReadRows>, true},
    {"mergePackets", "a packet of a merge of one trace: read, and its tick looked at", steps<MergePackets>, true},
    {"exportPackets/vcd", "an enter or leave packet shown by the writer of value change dumps",
     steps<ExportPackets<CVCDWriter>>, true},
    {"exportPackets/btf", "the same by the writer of BTF", steps<ExportPackets<CBtfWriter>>, true},
    {"exportPackets/perfetto", "the same by that of Perfetto's protobuf", steps<ExportPackets<CPerfettoWriter>>, true},
    {"exportPackets/chrome", "the same by that of Trace Event JSON", steps<ExportPackets<CChromeWriter>>, true},
    {"exportPackets/speedscope", "the same by that of speedscope", steps<ExportPackets<CSpeedscopeWriter>>, true},
    {"exportPackets/ctf", "the same by that of CTF", steps<ExportPackets<CCtfWriter>>, true},
    {"exportPackets/folded", "the same by that of folded stacks", steps<ExportPackets<CFoldedWriter>>, true},
    {"exportPackets/csv", "the same by that of the table of calls", steps<ExportPackets<CCsvWriter>>, true},
    {"exportPackets/json", "the same by that of lines of JSON", steps<ExportPackets<CJsonWriter>>, true},
    {"recordScope", "a traced function in an instrumented thread: enter and leave, without the storing",
     steps<RecordScope>, true},
    {"recordNothing", "the same where recording is switched off", steps<RecordNothing>, true},
    {"recordCounter", "a value of a counter, like that", steps<RecordCounter>, true},
    {"recordLock", "a free mutex taken and given back by QUORVEX_LOCK", steps<RecordLock>, true},
    {"recordEnter", "a function enter: clock, processor number, packet, page", steps<RecordEnter>, false},
};

} // namespace

std::span<const PathRow> paths() {
    return kPaths;
}

} // namespace bench
