#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/instrument/ThreadInstanceMap.h"
#include "quorvex/platform/Export.h"
#include "quorvex/stream/PageFile.h"
#include "quorvex/stream/TraceFileWriter.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

namespace Quorvex {

/// Lets a program record its own run: every thread that asks for a stream gets a paged trace file of its own, with the
/// thread's number as software context and the processor it runs on as hardware context.
///
/// The file stands in the directory named by QVX_TRACEDIR (else TEMP, else TMP; elsewhere than on Windows then TMPDIR,
/// else /tmp) under the prefix in QVX_TRACEFILENAME (else "thread_"), the thread's number and ".qvx". It begins with a
/// trace-enabled and a timestamp packet, which tells the ticks in one second, and ends with a trace-disabled and an
/// end-of-trace packet.
///
/// What happens at the edges:
/// - A thread that ends has its stream flushed. The file is completed when the program ends; a later thread that the
///   system gives the same number goes on in it.
/// - A program that ends while threads run completes all files. From then on those threads' streams refuse packets, and
///   get_Instance() returns null. A thread that is in the middle of a packet is waited for, at most kExitWait_ms.
/// - A forked child leaves its parent's files alone and records to files of its own.
/// - Where the file cannot be opened, one message goes to the log and the stream refuses packets. Where it cannot be
///   written later, one message goes to the log, and the stream refuses packets from then on.
/// - What a stream has refused is counted.
/// - A program that is killed or crashes leaves of each trace the pages that were full, and what was flushed.
///
/// With QVX_TRACEMODE=mapped a program that is killed or crashes loses no packet that a stream has taken. What stands
/// at the end of the trace is then in a second file, its name with ".page" behind it, and CTraceSourceBufferFile reads
/// the two as one; so they must be moved together. The second file goes when the trace is completed, unless the disk
/// was full. Where it cannot be made, or QVX_TRACEMODE is anything else but empty, that is told to the log and the
/// stream records as usual. Packets that are put behind a seekp() to before the page need a flush() to be safe.
///
/// A stream belongs to its thread. Putting a packet takes no lock, allocates nothing, and never throws; announcing a
/// function allocates.
class QUORVEX_API CQVXInstrumentingStream : private detail::SinkFile, public CTraceWriterPaged {
public:
    static constexpr unsigned kExitWait_ms = 500;

    /// The calling thread's stream, made on the first call; later calls take no lock. Null when the program is ending
    /// or memory is short.
    static CQVXInstrumentingStream* get_Instance();

    ~CQVXInstrumentingStream() override;

    /// Announces a function; only the first call for an id writes.
    bool FunctionDefine(const char* name, unsigned id);
    /// Where and when the caller is: the counter now, the processor now, this thread.
    const CCoreContext& Context();
    unsigned HWCtx() const { return m_context.HWCtx(); }
    unsigned SWCtx() const { return m_context.SWCtx(); }

    bool good() override;
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    bool put(CTraceSourceBuffer& source) override;
    bool seekp(std::uint64_t position) override;
    void flush() override;

    /// Path of the trace file, also of one that could not be opened.
    const std::string& path() const { return m_path; }
    /// The system's error number of the failed open; 0 when it is open.
    int error() const { return m_error; }
    /// Packets refused so far.
    std::uint64_t refused() const { return m_refused; }

protected:
    explicit CQVXInstrumentingStream(unsigned thread);
    bool open();
    bool close();
    static unsigned HWCtxId();
    static unsigned SWCtxId();

    bool overflow_flush() override;

private:
    friend class ThreadInstanceMap<CQVXInstrumentingStream>;
    struct Registry;
    class Use;

    bool retire();
    void finish();
    bool refuse();
    /// What the page has now is safe.
    bool keep(bool done) {
        m_pageFile.extend(filled());
        return done;
    }
    void restartPageFile();

    detail::PageFile m_pageFile; ///< not open: the page is in plain memory
    CCoreContext m_context;
    std::uint64_t m_frequency;
    std::set<unsigned> m_defined;
    std::string m_path;
    std::uint64_t m_refused = 0;
    int m_error = 0;
    bool m_broken = true;              ///< not open, or a write has failed
    bool m_ended = false;              ///< its thread has ended; guarded by the registry's lock
    std::atomic<bool> m_inUse{false};  ///< its thread is inside an operation
    std::atomic<bool> m_closed{false}; ///< completed: the thread must not touch it any more
};

} // namespace Quorvex
