#include "quorvex/instrument/InstrumentingStream.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/instrument/CallRecording.h"
#include "quorvex/instrument/ThreadInstanceMap.h"
#include "quorvex/packets/MessagePackets.h"
#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/platform/System.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>
#include <string_view>
#include <thread>

namespace Quorvex {

namespace detail {
constinit thread_local CQVXInstrumentingStream* t_stream = nullptr;
constinit bool g_barrier = false;
} // namespace detail

namespace {

using detail::g_barrier;
using detail::t_stream;

/// The thread makes or ends its stream: what is called for that, an allocator that is recorded itself, has none.
constinit thread_local bool t_busy = false;
constinit thread_local unsigned t_missed = 0; ///< packets that were lost by that
/// Prepared for as the library is loaded, in most programs before there is a second thread: with one, Linux takes some
/// ten milliseconds for it, which the first thread that records would wait.
[[maybe_unused]] const bool g_barrierPrepared = (platform::prepareBarrierOnAllThreads(), true);

/// Nothing is to be recorded. Known when the first thread has asked for a stream.
constinit std::atomic<bool> g_off{false};

/// How QVX_TRACEMODE says to record.
struct Mode {
    bool off = false;
    bool mapped = false;
    bool quiet = false;
    std::uint64_t ring = 0; ///< pages that are kept besides the first one; 0: all
    std::string unknown;    ///< a word that is none

    Mode() {
        if (const std::string size = platform::environment("QVX_TRACERING"); !size.empty())
            ring = std::max<std::uint64_t>(1, std::strtoull(size.c_str(), nullptr, 10) / kPageSize);
        std::istringstream words(platform::environment("QVX_TRACEMODE"));
        for (std::string word; std::getline(words, word, ',');) {
            off = off || word == "off";
            mapped = mapped || word == "mapped";
            quiet = quiet || word == "quiet";
            if (word != "off" && word != "mapped" && word != "quiet")
                unknown = word;
        }
    }
};

/// While the streams of the process are worked on: no signal handler comes between, and what is called has no stream.
class Busy {
public:
    Busy() { t_busy = true; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;
    ~Busy() { t_busy = false; }

private:
    const platform::Uninterrupted m_uninterrupted;
};

/// What a thread holds while it forks: also the log, which is the host's to exchange.
struct Forking {
    const Busy busy;
    const std::shared_ptr<CMessageQueue> log = CMessageQueue::g_Instance;
};

/// That of the thread. Plain memory: where it is used is no place to register a destructor.
alignas(Forking) constinit thread_local std::byte t_forking[sizeof(Forking)];

} // namespace

/// All streams of the process. It is never destroyed, because threads may ask for their stream at any time; a separate
/// object closes it when the process ends. Its lock is held only where no signal handler can come between.
struct CQVXInstrumentingStream::Registry {
    ThreadInstanceMap<CQVXInstrumentingStream> streams;
    const Mode mode;
    std::atomic<bool> told{false};      ///< standard error has had its line
    std::atomic<bool> completed{false}; ///< all streams are; no lock of this object is certain to be free any more
    /// The system's texts for its errors. To ask for one may take memory, which is no matter only here.
    std::array<std::string, 140> reasons;

    Registry() {
        g_off = mode.off;
        for (std::size_t error = 1; error < reasons.size(); ++error)
            reasons[error] = platform::errorText(static_cast<int>(error));
        platform::prepareBarrierOnAllThreads();
        g_barrier = platform::barrierOnAllThreads();
        platform::onFork(beforeFork, afterForkInParent, afterForkInChild);
        if (!mode.unknown.empty())
            tell("Cannot record in mode " + mode.unknown + ": no such mode; recording as usual.");
        if (!mode.off)
            startClock();
    }

    /// Takes the clock that QVX_TRACECLOCK names.
    void startClock() {
        platform::ClockChoice clock =
            platform::chooseClock(platform::environment("QVX_TRACECLOCK"), platform::counterFacts());
        if (clock.byCounter && !platform::g_recordingClock.start())
            clock.complaint =
                "Cannot take the time from the processor's counter, which stands still; taking the system's.";
        if (!clock.complaint.empty())
            tell(clock.complaint);
    }

    static Registry& instance() {
        struct Closer {
            Registry* registry;
            ~Closer() { registry->close(); }
        };
        static Registry* const registry = new Registry;
        [[maybe_unused]] static const Closer closer{registry};
        return *registry;
    }

    void close() {
        const Busy busy;
        streams.close([](auto& all) {
            for (const auto& [thread, stream] : all)
                stream->m_closed.store(true);
            platform::barrierOnAllThreads();
            const std::uint64_t deadline = platform::counterTick() + platform::counterFrequency() / 1000 * kExitWait_ms;
            std::erase_if(all, [deadline](const auto& entry) {
                const bool done = entry.second->retire(deadline);
                if (done)
                    delete entry.second;
                return done;
            });
        });
        completed = true;
    }

    /// Tells the log, and once the user, that something cannot be recorded.
    void tell(const std::string& text) {
        logError("CQVXInstrumentingStream: " + text);
        tellUserOnce(text);
    }
    /// Also in a signal handler.
    void tellUserOnce(std::string_view text, std::string_view more = "", std::string_view end = "") {
        if (!mode.quiet && !told.exchange(true))
            platform::tellUser({"quorvex: ", text, more.empty() ? "" : ": ", more, end, "\n"});
    }
    std::string_view reason(int error) const {
        return error > 0 && static_cast<std::size_t>(error) < reasons.size() ? reasons[static_cast<std::size_t>(error)]
                                                                             : std::string_view();
    }

    static void beforeFork() {
        const auto* const forking = new (t_forking) Forking;
        instance().streams.lock();
        detail::RecordingFile::lockAll();
        if (forking->log)
            forking->log->lock();
        platform::g_recordingClock.lock();
    }
    static void afterForkInParent() {
        platform::g_recordingClock.unlock();
        auto* const forking = std::launder(reinterpret_cast<Forking*>(t_forking));
        if (forking->log)
            forking->log->unlock();
        detail::RecordingFile::unlockAll();
        instance().streams.unlock();
        forking->~Forking();
    }
    static void afterForkInChild() {
        instance().streams.abandon();
        detail::RecordingFile::forgetAll();
        platform::prepareBarrierOnAllThreads();
        if (t_stream) {
            t_stream = nullptr;
            platform::onThreadEnd(threadEnded, nullptr);
        }
        afterForkInParent();
    }
};

CQVXInstrumentingStream* CQVXInstrumentingStream::get_Instance() {
    if (t_stream)
        return t_stream->m_closed.load(std::memory_order_relaxed) ? nullptr : t_stream;
    return g_off.load(std::memory_order_relaxed) ? nullptr : makeInstance();
}

CQVXInstrumentingStream* CQVXInstrumentingStream::makeInstance() {
    if (t_busy) {
        ++t_missed;
        return nullptr;
    }
    const Busy busy;
    try {
        Registry& registry = Registry::instance();
        if (registry.mode.off || registry.completed || registry.streams.closed())
            return nullptr;
        const unsigned thread = SWCtxId();
        CQVXInstrumentingStream* stream =
            registry.streams.find(thread, [](CQVXInstrumentingStream& found) { found.resume(); });
        if (!stream) {
            std::unique_ptr<CQVXInstrumentingStream> made(new CQVXInstrumentingStream(thread));
            if (!registry.streams.insert(thread, made.get()))
                return nullptr;
            stream = made.release();
        }
        stream->m_missed += std::exchange(t_missed, 0);
        stream->m_besidePage = stream->m_missed != 0;
        platform::onThreadEnd(threadEnded, stream);
        return t_stream = stream;
    } catch (const std::exception&) {
        return nullptr;
    }
}

void CQVXInstrumentingStream::threadEnded(void* value) {
    const Busy busy;
    t_stream = nullptr;
    Registry& registry = Registry::instance();
    if (registry.completed)
        return;
    auto* stream = static_cast<CQVXInstrumentingStream*>(value);
    // A stream may be completed by another thread that ends the program; the lock tells which comes first, and makes
    // what this thread wrote visible to the one that goes on with the stream.
    registry.streams.lock();
    if (!stream->m_closed)
        stream->park();
    registry.streams.unlock();
}

CQVXInstrumentingStream::CQVXInstrumentingStream(unsigned thread)
    : CTraceWriterPaged(m_file, PageElsewhere()),
      m_context(kUnknown64, 0, thread, kUnknown64),
      m_besideContext(m_context),
      m_frequency(platform::counterFrequency()) {
    Context();
    if (!open()) {
        logError("CQVXInstrumentingStream: Error opening trace file!");
        return;
    }
    CTraceEnabled enabled;
    CTimestamp timestamp(m_context.Tick(), m_frequency);
    keep(CTraceWriterPaged::put(&enabled) && CTraceWriterPaged::put(&timestamp));
    m_page.identify();
}

CQVXInstrumentingStream::~CQVXInstrumentingStream() {
    const platform::Uninterrupted quiet;
    if (!m_parked)
        finish();
    close();
    m_context = CCoreContext(kUnknown64, ~0U, ~0U, kUnknown64);
}

bool CQVXInstrumentingStream::open() {
    Registry& registry = Registry::instance();
    const detail::RecordingPlace place;
    if (place.isTooLong()) {
        registry.tellUserOnce(place.directory + "/" + place.prefix + ": longer than " +
                              std::to_string(platform::kEnvironmentLimit) + " characters; nothing is recorded there");
        return false;
    }
    if (!m_file.create(place.stem("thread_", SWCtx()))) {
        fail(error());
        return false;
    }
    detail::removePageFile(path());
    m_broken = !openPage();
    return !m_broken;
}

bool CQVXInstrumentingStream::createSharedPage() {
    // It takes descriptors for a moment; those of hundreds of threads that begin at once would be many.
    const detail::RecordingFile::Held held;
    return m_page.create(path());
}

bool CQVXInstrumentingStream::openPage() {
    Registry& registry = Registry::instance();
    if (registry.mode.mapped && !createSharedPage())
        registry.tell("Cannot record in mode mapped: " + platform::errorText(m_page.error()) + "; recording as usual.");
    if (!m_page.is_open() && !m_page.create()) {
        fail(ENOMEM);
        return false;
    }
    usePage(m_page.page());
    return true;
}

void CQVXInstrumentingStream::restartPage() {
    m_page.restart(pageStart(), handedOver(), filled());
}

void CQVXInstrumentingStream::closePage() {
    if (!m_broken)
        m_page.remove();
    else
        m_page.close();
    usePage(nullptr);
}

void CQVXInstrumentingStream::fail(int error) {
    m_broken = true;
    Registry& registry = Registry::instance();
    registry.tellUserOnce(path(), registry.reason(error), "; this thread is not recorded any further");
}

void CQVXInstrumentingStream::report(const char* text) {
    if (!*m_report)
        std::snprintf(m_report, sizeof m_report, "%s", text);
}

void CQVXInstrumentingStream::logReport() {
    if (*m_report)
        logError(m_report);
    *m_report = '\0';
}

void CQVXInstrumentingStream::finish() {
    takeIn();
    if (m_broken)
        return;
    CTraceDisabled disabled;
    CEndOfTrace end;
    keep(CTraceWriterPaged::put(&disabled) && CTraceWriterPaged::put(&end));
    CTraceWriterPaged::flush();
    if (!m_broken && !CTraceWriterPaged::good())
        fail(error());
}

bool CQVXInstrumentingStream::close() {
    const platform::Uninterrupted quiet;
    if (m_page.is_open()) {
        if (!m_broken)
            CTraceWriterPaged::flush();
        m_broken = m_broken || !CTraceWriterPaged::good();
        closePage();
    }
    m_file.rest();
    m_broken = true;
    logReport();
    return true;
}

void CQVXInstrumentingStream::park() {
    // What a handler has interrupted here before it ended the thread never goes on. The page is whole as far as it is
    // filled.
    m_inUse = false;
    if (m_parked)
        return;
    takeIn();
    m_parkedFrame = openFrame();
    m_parkedEnd = tellp();
    finish();
    m_file.rest();
    closePage();
    logReport();
    m_defined.pack();
    m_announced.pack();
    m_parked = true;
}

void CQVXInstrumentingStream::resume() {
    if (!m_parked)
        return;
    m_defined.unpack();
    m_announced.unpack();
    if (!m_broken && openPage()) {
        // A trace that is killed from here on has no end: what follows would stand behind it.
        static constexpr char kUnknownLength[sizeof kUnknown64] = {-1, -1, -1, -1, -1, -1, -1, -1};
        unsigned written = 0;
        if (m_parkedFrame)
            m_file.write(kUnknownLength, sizeof kUnknownLength, m_parkedFrame.position() + FrameOnPage::kLengthAt,
                         written);
        if (m_file.good() && m_file.truncate(m_parkedEnd)) {
            check_initial_pos();
            m_parkedFrame.inPage = m_parkedFrame.inPage && m_parkedFrame.position() >= pageStart();
            reopenFrame(m_parkedFrame);
            restartPage();
        } else {
            closePage();
            fail(error());
        }
    }
    m_parked = false;
}

bool CQVXInstrumentingStream::retire(std::uint64_t deadline) {
    if (t_stream == this)
        m_inUse = false; // of what a handler has interrupted before it ended the program, nothing goes on
    // A use lasts as long as one packet takes, or one page to the disk. A thread that the system has stopped inside one
    // never ends it: its stream is left as it is.
    while (m_inUse.load()) {
        if (platform::counterTick() > deadline)
            return false;
        std::this_thread::yield();
    }
    const bool mayGo = m_parked;
    if (!m_parked)
        finish();
    close();
    return mayGo;
}

CQVXInstrumentingStream::Moment CQVXInstrumentingStream::momentBehindOthers() {
    // A program that records what reads the clock for it would have something come with each reading.
    constexpr unsigned kMostReadings = 8;
    Moment now{};
    for (unsigned reading = 0; reading < kMostReadings; ++reading) {
        takeIn();
        now = Moment::now();
        if (!m_besidePage.load(std::memory_order_relaxed))
            break;
    }
    return now;
}

const CCoreContext& CQVXInstrumentingStream::Context() {
    CCoreContext& context = m_inUse.load(std::memory_order_relaxed) ? m_besideContext : m_context;
    context.HWCtx(HWCtxId());
    context.Tick(platform::g_recordingClock.now());
    return context;
}

unsigned CQVXInstrumentingStream::HWCtxId() {
    return platform::processorHere();
}

unsigned CQVXInstrumentingStream::SWCtxId() {
    return platform::currentThreadId();
}

bool CQVXInstrumentingStream::FunctionDefine(const char* name, unsigned id) {
    return define(m_defined, id, Function{tagTCode::FunctionDefine, {id}, name ? name : ""});
}

bool CQVXInstrumentingStream::FunctionEnter(unsigned id) {
    return recordCall<tagTCode::FunctionEnter>(id);
}

bool CQVXInstrumentingStream::FunctionLeave(unsigned id) {
    return recordCall<tagTCode::FunctionLeave>(id);
}

bool CQVXInstrumentingStream::recordCallBeside(tagTCode code, unsigned id, std::uint64_t address, bool allowed) {
    return recordBytesBeside(call(code, id, address), allowed);
}

void CQVXInstrumentingStream::takeInLate() {
    for (bool granted = true; granted && m_besidePage.load(std::memory_order_relaxed);) {
        granted = Use::begin(*this);
        if (granted)
            takeIn();
        Use::end(*this);
    }
}

bool CQVXInstrumentingStream::refuse() {
    m_refused.fetch_add(1, std::memory_order_relaxed);
    return false;
}

bool CQVXInstrumentingStream::recordBeside(CPacket& packet) {
    const unsigned size = packet.StreamSize();
    return recordBeside(size, [&packet, size](std::uint64_t, char* room) { return packet.write(room, size) == size; });
}

void CQVXInstrumentingStream::takeIn() {
    // A handler that ends the program must not find a packet in both places.
    const platform::Uninterrupted quiet;
    m_besidePage = false;
    if (!m_page.is_open())
        return;
    unsigned size = 0;
    while (const char* packet = m_page.oldest(size)) {
        if (m_broken || !append(packet, size))
            refuse();
        m_page.moved(filled());
    }
    const unsigned missed = m_missed.exchange(0);
    if (missed == 0 || m_broken)
        return;
    char text[100];
    const int length =
        std::snprintf(text, sizeof text, "%u packets were lost that came while another one was recorded", missed);
    const Bytes<std::int8_t> message{Message,
                                     {CMessagePayload::kErrorLevel},
                                     {text, static_cast<std::size_t>(length)},
                                     Bytes<std::int8_t>::Begin::Tick};
    char bytes[sizeof text + 20];
    message.encode(Moment::now(), SWCtx(), bytes);
    keep(append(bytes, message.size()));
}

bool CQVXInstrumentingStream::good() {
    return !m_closed.load() && !m_broken && CTraceWriterPaged::good();
}

bool CQVXInstrumentingStream::put(CPacket* packet) {
    const Use use(*this);
    if (use.granted()) [[likely]]
        return keep(CTraceWriterPaged::put(packet)) || refuse();
    return use.nested() && packet ? recordBeside(*packet) : refuse();
}

bool CQVXInstrumentingStream::forward(CPacket*& packet) {
    const Use use(*this);
    if (use.granted())
        return keep(CTraceWriterPaged::forward(packet)) || refuse();
    return use.nested() && packet ? recordBeside(*packet) : refuse();
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
    const platform::Uninterrupted quiet;
    if (!use.granted() || !CTraceWriterPaged::seekp(position))
        return false;
    restartPage();
    return true;
}

void CQVXInstrumentingStream::flush() {
    const Use use(*this);
    const platform::Uninterrupted quiet;
    if (use.granted()) {
        CTraceWriterPaged::flush();
        if (CTraceWriterPaged::good())
            restartPage();
        else
            fail(error());
    }
    if (use.outermost() && !m_closed.load())
        logReport();
}

void CQVXInstrumentingStream::keepRing() {
    Registry& registry = Registry::instance();
    // The first page has the clock, and what names there are.
    const std::uint64_t ring = registry.mode.ring;
    if (ring != 0 && pageStart() / kPageSize > ring + 1 &&
        !m_file.release(pageStart() - (ring + 1) * kPageSize, kPageSize))
        registry.tellUserOnce(path(), "the disk keeps what is older, too");
}

bool CQVXInstrumentingStream::overflow_flush() {
    const platform::Uninterrupted quiet;
    // The Fill packets at the page's end count, too: while the page is written, the file may not have more than it.
    m_page.extend(filled());
    if (CTraceWriterPaged::overflow_flush()) {
        restartPage();
        keepRing();
    } else {
        fail(error());
    }
    return !m_broken;
}

} // namespace Quorvex
