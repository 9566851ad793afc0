#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/instrument/IdSet.h"
#include "quorvex/instrument/RecordingFile.h"
#include "quorvex/platform/Atomic.h"
#include "quorvex/platform/Export.h"
#include "quorvex/stream/PageFile.h"
#include "quorvex/stream/TraceWriterPaged.h"

#include <cstdint>
#include <string>

namespace Quorvex {

namespace detail {
class CallHooks;
struct OwnRecording;

/// Holds the file so that it is built before the writer on it.
struct RecordingSink {
    RecordingFile m_file;
};
} // namespace detail

/// Lets a program record its own run: every thread that asks for a stream gets a paged trace file of its own, with the
/// thread's number as software context and the processor it runs on as hardware context.
///
/// The file stands in the directory named by QVX_TRACEDIR (else TEMP, else TMP; elsewhere than on Windows then TMPDIR,
/// else /tmp) under the prefix in QVX_TRACEFILENAME (else "thread_"), the thread's number and ".qvx". No file is ever
/// replaced: where that name is taken (an earlier run, the program before an exec, a second copy of this library in the
/// process, a container with numbers of its own), "-2" and so on stands behind the number. The file begins with a
/// trace-enabled and a timestamp packet, which tells the ticks in one second, and ends with a trace-disabled and an
/// end-of-trace packet.
///
/// QVX_TRACEMODE chooses how to record, as words with commas between them; it is read once:
///     mapped   a killed program loses nothing, see below
///     quiet    nothing is said on standard error
///     off      nothing is recorded
/// A program that is compiled with QUORVEX_NO_TRACE records nothing by the macros of Record.h.
///
/// QVX_TRACECLOCK chooses what the time is read from; it is read once:
///     auto        the processor's counter where it may be relied on (platform/Clock.h tells where), else the system's
///                 clock; so it is when the variable is not set
///     tsc         the processor's counter also where the system counts its time by another
///     monotonic   the system's clock
/// The choice changes what reading takes, not what is told: ticks are those of the system's high-resolution clock,
/// which on Linux are nanoseconds of CLOCK_MONOTONIC, to within a microsecond. Times of all threads can be compared:
/// what follows on something that another thread has done is never told an earlier time. Packets of one's own take
/// theirs from Context().
///
/// QVX_TRACERING says how many bytes each thread keeps, rounded down to pages of 256 KiB, at least one: its first page
/// and the last ones. Those between become zeros that take no place on the disk, which `qvx record` leaves out of what
/// it makes of them; it is read once. Where the disk cannot do so, all is kept.
///
/// What happens at the edges:
/// - A thread that ends has its trace completed, and its memory and its descriptor are given back. A later thread that
///   the system gives the same number goes on in the same trace.
/// - A program that ends while threads run completes all files. From then on those threads' streams refuse packets, and
///   get_Instance() returns null. Threads that are in the middle of a packet are waited for, all together at most
///   kExitWait_ms.
/// - A forked child leaves its parent's files alone and records to files of its own. Signals of the forking thread wait
///   until the fork is done.
/// - A signal handler may record, also while its thread is in the middle of recording: such packets come into the trace
///   when that is done. Where there is no room for them until then they are refused, and a message in the trace tells
///   how many. A handler may also end the program by exit(), or the thread. Only the first call of get_Instance() in a
///   thread uses the program's allocator; where a handler may be the first to record in a thread, call it there before.
///   Excepted are forward() of a list, which releases its packets, and flush() behind a failure, which logs that.
///   Lists, and what put(CTraceSourceBuffer&) and seekp() ask for, are refused inside another recording. A handler that
///   leaves what it has interrupted by a jump may leave its thread without a recording.
/// - Where the file cannot be opened or written, that is said in one line on standard error, once in a process, and in
///   the message log; the stream refuses packets from then on, and what it has refused is counted. Failures of an open
///   stream, also to put a packet that no page holds, come into the log by the next flush(), or when the trace is
///   closed; of several the first.
/// - A program that is killed or crashes leaves of each trace the pages that were full, and what was flushed.
/// - The recording thread finds errno as it was. It is not cancelled inside a write.
///
/// In mode mapped a program that is killed or crashes loses no packet that a stream has taken. What stands at the end
/// of the trace is then in a second file, its name with ".page" behind it, and CTraceSourceBufferFile reads the two as
/// one; so they must be moved together. The second file goes when the trace is completed, unless the disk was full.
/// Where it cannot be made, that is told like any other failure, and the stream records as usual. Packets that are put
/// behind a seekp() to before the page need a flush() to be safe.
///
/// A stream belongs to its thread. Putting a packet takes no lock, allocates nothing, and never throws.
class QUORVEX_API CQVXInstrumentingStream : private detail::RecordingSink, public CTraceWriterPaged {
public:
    static constexpr unsigned kExitWait_ms = 500; ///< the longest that the end of the program waits for threads

    /// The calling thread's stream, made on the first call; later calls take no lock. Null when nothing is recorded,
    /// when the program is ending, when memory is short, and for what the first call itself calls.
    static CQVXInstrumentingStream* get_Instance();

    ~CQVXInstrumentingStream() override;

    // These and put() are false when they were refused: nothing is open, a write has failed, the trace is completed, or
    // there was no room. Those are counted by refused().

    /// Announces a function; only the first call for an id writes, or one inside another recording. An id counts as
    /// announced also when its packet was refused. The name is copied; null is an empty one.
    bool FunctionDefine(const char* name, unsigned id);
    /// Record that the thread enters or leaves a function now. Unlike a packet that is made of Context() and put, they
    /// cannot come behind one that a signal handler records later, nor can those of handlers that interrupt each other.
    bool FunctionEnter(unsigned id);
    bool FunctionLeave(unsigned id); ///< the counterpart of FunctionEnter
    /// Where and when the caller is: the counter now, the processor now, this thread. It holds until the next call in
    /// the thread, also one by a signal handler.
    const CCoreContext& Context();
    /// The processor that the caller runs on now.
    unsigned HWCtx() const { return HWCtxId(); }
    unsigned SWCtx() const { return m_context.SWCtx(); }

    bool good() override;
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    bool put(CTraceSourceBuffer& source) override;
    bool seekp(std::uint64_t position) override;
    void flush() override;

    /// Path of the trace file, also of one that could not be opened.
    const std::string& path() const { return m_file.path(); }
    /// The system's error number (errno) of the last open or write; 0 when it went well.
    int error() const { return m_file.error(); }
    /// Packets refused so far.
    std::uint64_t refused() const { return m_refused.relaxed(); }

protected:
    explicit CQVXInstrumentingStream(unsigned thread);
    bool open();               ///< makes the file of the thread
    bool close();              ///< completes the trace
    static unsigned HWCtxId(); ///< the processor that the thread runs on
    static unsigned SWCtxId(); ///< the number of the thread

    bool overflow_flush() override;
    /// Keeps it for the message log, which takes memory and a lock: this may be in a signal handler.
    void report(const char* text) override;

private:
    friend class detail::CallHooks;
    friend struct detail::OwnRecording;
    struct Registry;
    template <class... Fields> struct Bytes;
    using Function = Bytes<std::uint32_t>;
    class Use;

    /// The calling thread's stream, as get_Instance() makes it, also one that is completed.
    static CQVXInstrumentingStream* ofThread();
    static CQVXInstrumentingStream* makeInstance();
    static void threadEnded(void* stream);

    /// What of a packet's context changes.
    struct Moment {
        std::uint64_t tick;
        std::uint32_t processor;

        static Moment now();
    };
    /// That of now, behind all that has been recorded, also by handlers; for the one that uses the page.
    Moment moment();
    Moment momentBehindOthers();
    template <tagTCode Code> bool recordCall(unsigned id, std::uint64_t address = kUnknown64) noexcept;
    /// What is left of that where the stream is in use, in few arguments; whether that is `allowed`.
    bool recordCallBeside(tagTCode code, unsigned id, std::uint64_t address, bool allowed);
    static Function call(tagTCode code, unsigned id, std::uint64_t address);
    /// For what comes while another packet is being put: `write` puts its `size` bytes into their room.
    template <class Write> bool recordBeside(unsigned size, Write&& write);
    bool recordBeside(CPacket& packet);
    /// Records a packet of Bytes in whatever place.
    template <class Packet> bool record(Packet packet);
    template <class Packet> bool recordNow(Packet packet); ///< in the page, for the one that uses it
    /// Beside the page, where that is `allowed`; else refuses it.
    template <class Packet> bool recordBytesBeside(Packet packet, bool allowed);
    /// Records packets of Bytes that define `id`, unless that is known; inside another recording in any case.
    template <class... Packets> bool define(detail::IdSet& known, unsigned id, Packets... packets);
    /// Puts what stands beside the page there, and tells of what found no room.
    void takeIn();
    void takeInLate(); ///< the same for what has come since a use took packets in, and while this does
    bool refuse();
    bool takesPackets() const { return !m_closed.load() && !m_broken; }
    /// What the page has now counts.
    bool keep(bool done) {
        m_page.extend(filled());
        return done;
    }
    bool openPage();
    bool createSharedPage();
    void restartPage();
    void keepRing(); ///< gives back the oldest page, where only some are to be kept
    void closePage();
    /// No more can be written, for the reason of that number: tells so.
    void fail(int error);
    void logReport();

    /// Puts the end of the trace behind what it has.
    void finish();
    /// Completes the trace and gives back what a thread needs that runs; resume() undoes that. Both by the thread
    /// itself.
    void park();
    void resume();
    /// Completes the trace for good, once its thread is not in the middle of a packet; until `deadline`, a tick of the
    /// counter, that is waited for. Whether it may be destroyed.
    bool retire(std::uint64_t deadline);

    // What every packet takes comes first, so that it stands together.
    CCoreContext m_context;
    platform::Atomic<bool> m_inUse{false};      ///< its thread is inside an operation
    platform::Atomic<bool> m_besidePage{false}; ///< something has come while that was so
    platform::Atomic<bool> m_closed{false};     ///< completed: the thread must not touch it any more
    bool m_broken = true;                       ///< not open, or a write has failed
    bool m_parked = false;                      ///< its thread has ended; guarded by the registry's lock
    detail::PageFile m_page;
    CCoreContext m_besideContext; ///< of what comes inside another recording
    std::uint64_t m_frequency;
    detail::IdSet m_defined;       ///< functions, by the ids that the program has given them
    detail::IdSet m_announced;     ///< places in the program, by the numbers that Record.h gives them
    FrameOnPage m_parkedFrame;     ///< of a trace that is parked
    std::uint64_t m_parkedEnd = 0; ///< where it goes on
    char m_report[112] = {};       ///< the first one that is not in the message log yet
    platform::Atomic<std::uint64_t> m_refused{0};
    platform::Atomic<unsigned> m_missed{0}; ///< refused beside the page, and not yet told in the trace
};

} // namespace Quorvex
