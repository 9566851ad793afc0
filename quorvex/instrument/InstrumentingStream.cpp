#include "quorvex/instrument/InstrumentingStream.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/SoftwareObjectPackets.h"
#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/platform/System.h"

#include <chrono>
#include <thread>

namespace Quorvex {

namespace {

/// The calling thread's stream. Plain memory, so that reading it costs no check for its construction.
constinit thread_local CQVXInstrumentingStream* t_stream = nullptr;
/// The thread is on its way out: what it still records goes to its stream, but nobody flushes after it any more.
constinit thread_local bool t_ending = false;
/// The system has a barrier that all threads notice. Set before the first stream is made.
constinit bool g_barrier = false;

} // namespace

/// All streams of the process. It is never destroyed, because threads may ask for their stream at any time; a separate
/// object closes it when the process ends.
struct CQVXInstrumentingStream::Registry {
    ThreadInstanceMap<CQVXInstrumentingStream> streams;
    std::atomic<bool> completed{false}; ///< all streams are; no lock of this object is certain to be free any more

    Registry() {
        platform::prepareBarrierOnAllThreads();
        g_barrier = platform::barrierOnAllThreads();
        platform::onFork(beforeFork, afterForkInParent, afterForkInChild);
    }

    static Registry& instance() {
        struct Closer {
            Registry* registry;
            ~Closer() {
                registry->streams.close();
                registry->completed = true;
            }
        };
        static Registry* const registry = new Registry;
        [[maybe_unused]] static const Closer closer{registry};
        return *registry;
    }

    static void threadEnded(void* stream);

    static void beforeFork() {
        instance().streams.lock();
        CMessageQueue::g_Instance->lock();
    }
    static void afterForkInParent() {
        CMessageQueue::g_Instance->unlock();
        instance().streams.unlock();
    }
    static void afterForkInChild() {
        instance().streams.abandon();
        platform::prepareBarrierOnAllThreads();
        if (t_stream) {
            t_stream = nullptr;
            platform::onThreadEnd(threadEnded, nullptr);
        }
        afterForkInParent();
    }
};

/// Flushes the stream of a thread that ends.
void CQVXInstrumentingStream::Registry::threadEnded(void* value) {
    t_stream = nullptr;
    t_ending = true;
    if (instance().completed)
        return;
    auto* stream = static_cast<CQVXInstrumentingStream*>(value);
    auto& streams = instance().streams;
    // A stream may be completed by another thread that ends the program; the lock tells which comes first, and makes
    // what this thread wrote visible to the one that goes on with the stream.
    streams.lock();
    stream->flush();
    stream->m_ended = true;
    streams.unlock();
}

/// Marks the stream as in use while its thread works on it, and tells whether it may.
///
/// The other side, retire(), closes the stream, passes a barrier that all threads notice, and then waits until no use
/// is left. So the mark costs two plain stores; only where the system has no such barrier must the mark be one itself.
class CQVXInstrumentingStream::Use {
public:
    explicit Use(CQVXInstrumentingStream& stream) : m_stream(stream) {
        if (g_barrier) {
            m_stream.m_inUse.store(true, std::memory_order_relaxed);
            std::atomic_signal_fence(std::memory_order_seq_cst);
        } else {
            m_stream.m_inUse.exchange(true);
        }
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() { m_stream.m_inUse.store(false, std::memory_order_release); }

    bool granted() const { return !m_stream.m_closed.load() && !m_stream.m_broken; }

private:
    CQVXInstrumentingStream& m_stream;
};

CQVXInstrumentingStream* CQVXInstrumentingStream::get_Instance() {
    if (t_stream)
        return t_stream->m_closed.load(std::memory_order_relaxed) ? nullptr : t_stream;
    Registry& registry = Registry::instance();
    if (registry.streams.closed())
        return nullptr;
    const unsigned thread = SWCtxId();
    // Claimed at once: one whose thread has ended may be destroyed when the program ends.
    CQVXInstrumentingStream* stream =
        registry.streams.find(thread, [](CQVXInstrumentingStream& found) { found.m_ended = false; });
    if (!stream) {
        try {
            stream = new CQVXInstrumentingStream(thread);
        } catch (const std::exception&) {
            return nullptr;
        }
        if (!registry.streams.insert(thread, stream)) {
            delete stream;
            return nullptr;
        }
    }
    if (!t_ending) {
        platform::onThreadEnd(Registry::threadEnded, stream);
        t_stream = stream;
    }
    return stream;
}

CQVXInstrumentingStream::CQVXInstrumentingStream(unsigned thread)
    : CTraceWriterPaged(m_file),
      m_context(kUnknown64, 0, thread, kUnknown64),
      m_frequency(platform::counterFrequency()) {
    Context();
    if (!open()) {
        logError("CQVXInstrumentingStream: Error opening trace file!");
        return;
    }
    CTraceEnabled enabled;
    CTimestamp timestamp(m_context.Tick(), m_frequency);
    keep(CTraceWriterPaged::put(&enabled) && CTraceWriterPaged::put(&timestamp));
    m_pageFile.identify();
}

CQVXInstrumentingStream::~CQVXInstrumentingStream() {
    finish();
    m_defined.clear();
    m_context = CCoreContext(kUnknown64, ~0U, ~0U, kUnknown64);
}

bool CQVXInstrumentingStream::open() {
    std::string directory = platform::environment("QVX_TRACEDIR");
    for (const char* fallback : {"TEMP", "TMP"}) {
        if (directory.empty())
            directory = platform::environment(fallback);
    }
    if (directory.empty())
        directory = platform::defaultTemporaryDirectory();
    std::string prefix = platform::environment("QVX_TRACEFILENAME");
    if (prefix.empty())
        prefix = "thread_";
    m_path = directory + "/" + prefix + std::to_string(m_context.SWCtx()) + ".qvx";
    detail::removePageFile(m_path);
    m_broken = !m_file.open(m_path.c_str(), false);
    m_error = m_broken ? m_file.error() : 0;
    check_initial_pos();
    const std::string mode = platform::environment("QVX_TRACEMODE");
    std::string reason;
    if (mode == "mapped" && !m_broken) {
        if (m_pageFile.create(m_path))
            usePage(m_pageFile.page());
        else
            reason = platform::errorText(m_pageFile.error());
    } else if (!mode.empty() && mode != "mapped") {
        reason = "no such mode";
    }
    if (!reason.empty())
        logError("CQVXInstrumentingStream: Cannot record in mode " + mode + ": " + reason + "; recording as usual.");
    return !m_broken;
}

void CQVXInstrumentingStream::restartPageFile() {
    m_pageFile.restart(pageStart(), handedOver(), filled());
}

bool CQVXInstrumentingStream::close() {
    if (!m_broken)
        CTraceWriterPaged::flush();
    const bool flushed = !m_broken && CTraceWriterPaged::good();
    m_file.close();
    if (flushed && m_file.error() == 0)
        m_pageFile.remove();
    m_broken = true;
    return true;
}

void CQVXInstrumentingStream::finish() {
    if (!m_broken) {
        CTraceDisabled disabled;
        CEndOfTrace end;
        keep(CTraceWriterPaged::put(&disabled) && CTraceWriterPaged::put(&end));
    }
    close();
}

bool CQVXInstrumentingStream::retire() {
    m_closed.store(true);
    platform::barrierOnAllThreads();
    // A use lasts as long as one packet takes, or one page to the disk. A thread that the system has stopped inside one
    // never ends it: its stream is left as it is.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kExitWait_ms);
    while (m_inUse.load()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    finish();
    return m_ended;
}

const CCoreContext& CQVXInstrumentingStream::Context() {
    m_context.HWCtx(HWCtxId());
    m_context.Tick(platform::counterTick());
    return m_context;
}

unsigned CQVXInstrumentingStream::HWCtxId() {
    return platform::currentProcessor();
}

unsigned CQVXInstrumentingStream::SWCtxId() {
    return platform::currentThreadId();
}

bool CQVXInstrumentingStream::FunctionDefine(const char* name, unsigned id) {
    const Use use(*this);
    if (!use.granted())
        return refuse();
    try {
        if (!m_defined.insert(id).second)
            return true;
        CFunctionDefine define(Context(), id, name);
        return keep(CTraceWriterPaged::put(&define)) || refuse();
    } catch (const std::exception&) {
        return refuse();
    }
}

bool CQVXInstrumentingStream::refuse() {
    ++m_refused;
    return false;
}

bool CQVXInstrumentingStream::good() {
    const Use use(*this);
    return use.granted() && CTraceWriterPaged::good();
}

bool CQVXInstrumentingStream::put(CPacket* packet) {
    const Use use(*this);
    return (use.granted() && keep(CTraceWriterPaged::put(packet))) || refuse();
}

bool CQVXInstrumentingStream::forward(CPacket*& packet) {
    const Use use(*this);
    return (use.granted() && keep(CTraceWriterPaged::forward(packet))) || refuse();
}

bool CQVXInstrumentingStream::forward(std::list<CPacket*>& packets) {
    const Use use(*this);
    return (use.granted() && keep(CTraceWriterPaged::forward(packets))) || refuse();
}

bool CQVXInstrumentingStream::put(CTraceSourceBuffer& source) {
    const Use use(*this);
    return (use.granted() && keep(CTraceWriterPaged::put(source))) || refuse();
}

bool CQVXInstrumentingStream::seekp(std::uint64_t position) {
    const Use use(*this);
    if (!use.granted() || !CTraceWriterPaged::seekp(position))
        return false;
    restartPageFile();
    return true;
}

void CQVXInstrumentingStream::flush() {
    const Use use(*this);
    if (!use.granted())
        return;
    CTraceWriterPaged::flush();
    m_broken = !CTraceWriterPaged::good();
    if (!m_broken)
        restartPageFile();
}

bool CQVXInstrumentingStream::overflow_flush() {
    // The Fill packets at the page's end count, too: while the page is written, the file may not have more than it.
    m_pageFile.extend(filled());
    m_broken = !CTraceWriterPaged::overflow_flush();
    if (m_pageFile.is_open() && !m_broken) {
        // The page is overwritten from now on; what stands in between must have left the process.
        m_file.flush();
        m_broken = !CTraceWriterPaged::good();
        if (!m_broken)
            restartPageFile();
    }
    return !m_broken;
}

} // namespace Quorvex
