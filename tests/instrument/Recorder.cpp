// Records itself in the way that its argument names, and prints for each of its threads what a reader must find:
// "THREAD ENTERS". Ends with 0 unless something is wrong.

#include "quorvex/platform/System.h"
#include "quorvex/quorvex.h"
#include "tests/instrument/RecordedAllocator.h"
#include "tests/instrument/Told.h"
#include "tests/support/Bytes.h"
#include "tests/support/NumberedPackets.h"
#include "tests/support/System.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Quorvex::CPacket;
using Quorvex::CQVXInstrumentingStream;
using Quorvex::test::interruptEvery;

std::mutex g_lock;
const char* g_program = nullptr;

void leaf() {
    QUORVEX_TRACE_FUNCTION();
}

void record(unsigned calls) {
    QUORVEX_TRACE_SCOPE("record a name that is somewhat longer");
    for (unsigned i = 1; i < calls; ++i)
        leaf();
}

void recordAndTell(unsigned calls) {
    record(calls);
    const auto* stream = CQVXInstrumentingStream::get_Instance();
    const std::lock_guard lock(g_lock);
    std::printf("%u %u\n", stream ? stream->SWCtx() : 0, calls);
    std::fflush(stdout);
}

/// Records while static objects are destroyed, before and after the traces are completed.
struct Late {
    ~Late() {
        record(1);
        if (CQVXInstrumentingStream::get_Instance())
            std::_Exit(1);
    }
};

int threads() {
    std::vector<std::thread> all;
    for (const unsigned calls : {1U, 1000U, 30'000U})
        all.emplace_back(recordAndTell, calls);
    for (std::thread& thread : all)
        thread.join();
    return 0;
}

/// Many threads one after the other: the system may give a number again.
int shortLived() {
    for (unsigned i = 0; i < 200; ++i)
        std::thread(recordAndTell, 3).join();
    return 0;
}

unsigned setting(const char* name) {
    const std::string value = Quorvex::platform::environment(name);
    return value.empty() ? 0 : static_cast<unsigned>(std::stoul(value));
}

/// Records in a thread, then by `atEnd` when its trace is complete.
int recordAndResume(void (*inThread)(), void (*atEnd)()) {
    CQVXInstrumentingStream::get_Instance(); // so that what comes at the thread's end comes behind the library
    bool here = false;
    std::thread([=, &here] {
        here = Quorvex::test::atThreadEnd(atEnd);
        if (here)
            inThread();
    }).join();
    return here ? 0 : Quorvex::test::kNotHere;
}

/// A thread that goes on in another working directory. With EXIT, the program ends then without completing anything.
int resumed() {
    recordAndTell(1);
    static const auto defineMany = [] {
        for (unsigned id = 1; id < 100; ++id)
            CQVXInstrumentingStream::get_Instance()->FunctionDefine("one of many", Quorvex::test::kFirstNumber + id);
    };
    const auto inThread = [] {
        recordAndTell(3);
        defineMany();
        std::filesystem::current_path("sub");
    };
    const auto atEnd = [] {
        CQVXInstrumentingStream::get_Instance();
        const unsigned before = Quorvex::test::g_allocations;
        defineMany();
        if (Quorvex::test::g_allocations != before)
            std::_Exit(1);
        recordAndTell(4);
        if (setting("EXIT") != 0)
            std::_Exit(0);
    };
    return recordAndResume(inThread, atEnd);
}

/// The same, but another file has the name of the trace by then: that is not written, nor kept open.
int displaced() {
    static std::size_t open = 0;
    static bool refused = false;
    record(1);
    open = Quorvex::test::openFiles();
    const auto inThread = [] {
        record(3);
        const std::string path = CQVXInstrumentingStream::get_Instance()->path();
        std::filesystem::rename(path, path + ".old");
        std::fclose(std::fopen(path.c_str(), "wb"));
    };
    const int result = recordAndResume(inThread, [] { refused = !CQVXInstrumentingStream::get_Instance()->good(); });
    return result != 0 ? result : !refused || Quorvex::test::openFiles() != open;
}

int running() {
    static std::atomic<unsigned> started{0};
    for (unsigned i = 0; i < 4; ++i)
        std::thread([i] {
            record(2);
            auto* const stream = CQVXInstrumentingStream::get_Instance();
            ++started;
            while (true) {
                record(i % 2 == 0 ? 50 : 1);
                stream->FunctionEnter(Quorvex::test::kFirstNumber); // may be refused all the time
                stream->FunctionLeave(Quorvex::test::kFirstNumber);
            }
        }).detach();
    while (started < 4)
        std::this_thread::yield();
    record(5);
    return 0;
}

/// Forks three times; the children record, and nothing of the parent's may be touched.
int forkAndRecord(void (*inChild)()) {
    int status = 0;
    const auto child = [&] {
        recordAndTell(10);
        inChild();
        std::exit(0);
    };
    for (unsigned i = 0; i < 3; ++i)
        status |= Quorvex::test::fork(child, [] { recordAndTell(1); });
    return status;
}

int forkedWithThreads() {
    if (!Quorvex::test::isPosix())
        return Quorvex::test::kNotHere;
    recordAndTell(2000);
    CMessageQueue::g_Instance = nullptr; // as a host may, which wants no log
    return forkAndRecord([] { std::thread(recordAndTell, 7).join(); });
}

/// Forks while another thread is recording. (That thread allocates nothing then, and the child starts no thread: the
/// allocator and the threads of a checked build do not survive more.)
int forkedWhileBusy() {
    if (!Quorvex::test::isPosix())
        return Quorvex::test::kNotHere;
    recordAndTell(2000);
    std::atomic<bool> started{false}, stop{false};
    std::thread busy([&] {
        record(10);
        unsigned calls = 10;
        for (started = true; !stop; calls += 10)
            record(10);
        std::printf("%u %u\n", CQVXInstrumentingStream::get_Instance()->SWCtx(), calls);
    });
    while (!started)
        std::this_thread::yield();
    const int result = forkAndRecord([] {});
    stop = true;
    busy.join();
    return result;
}

/// Forks while a signal handler records so much that pages are written.
int forkedWhileInterrupted() {
    if (!Quorvex::test::interruptForks([] { recordAndTell(10'000); }))
        return Quorvex::test::kNotHere;
    recordAndTell(1);
    return Quorvex::test::fork([] { std::_Exit(0); }, [] {});
}

int execed() {
    if (!Quorvex::test::isPosix())
        return Quorvex::test::kNotHere;
    recordAndTell(5);
    return Quorvex::test::fork([] { std::_Exit(0); }, [] {}); // ends without completing anything
}

/// What goes to standard error goes to the file `errors`.
void tellErrors() {
    if (!std::freopen("errors", "wb", stderr))
        std::_Exit(1);
}

/// Where nothing can be written: one message for each thread, and everything refused is counted.
int unwritable() {
    tellErrors();
    record(100);
    std::thread([] { record(100); }).join();
    auto* stream = CQVXInstrumentingStream::get_Instance();
    const unsigned messages = CMessageQueue::g_Instance->size();
    while (const auto message = CMessageQueue::g_Instance->pop()) {
        if (!(message->Message() == ATL::CComBSTR("CQVXInstrumentingStream: Error opening trace file!")))
            return 2;
    }
    // 100 enters and leaves.
    return messages == 2 && !stream->good() && stream->refused() == 200 ? 0 : 3;
}

/// Where files may not grow: that ends no program and takes no memory, and the log gets to know of it later.
int limitedFiles() {
    if (!Quorvex::test::limitFiles(100'000))
        return Quorvex::test::kNotHere;
    tellErrors();
    auto* stream = CQVXInstrumentingStream::get_Instance();
    const std::string name(2000, 'x');
    const unsigned before = Quorvex::test::g_allocations;
    stream->FunctionDefine(name.c_str(), 1);
    while (stream->FunctionEnter(1)) {
    }
    if (Quorvex::test::g_allocations != before)
        return 1;
    const unsigned messages = CMessageQueue::g_Instance->size();
    stream->flush();
    return CMessageQueue::g_Instance->size() == messages + 1 ? 0 : 2;
}

/// Where nobody can read what is said on standard error, where it would have to wait for a reader, and where it goes to
/// a file that may not grow.
int unheard(bool isPrepared) {
    return isPrepared ? CQVXInstrumentingStream::get_Instance()->good() : Quorvex::test::kNotHere;
}

int unread() {
    return unheard(Quorvex::test::tellNobody(false));
}

int unreadAndFull() {
    return unheard(Quorvex::test::tellNobody(true));
}

int unwritten() {
    tellErrors();
    std::fputs("so much and no more", stderr);
    std::fflush(stderr); // which has a buffer now
    return unheard(Quorvex::test::limitFiles(std::filesystem::file_size("errors")));
}

/// Where nothing can be written, a thread whose first recording is that of the memory for a message in the log.
int logging() {
    tellErrors();
    std::thread([] {
        Quorvex::test::g_recordNew = true;
        Quorvex::logError("of the thread");
        Quorvex::test::g_recordNew = false;
    }).join();
    return CMessageQueue::g_Instance->size() == 2 && CMessageQueue::g_Instance->pop(3).size() == 2 ? 0 : 1;
}

/// The time in nanoseconds, as any program would ask for it.
long long clockNow() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Enters functions that are numbers, for half a second and in ever longer steps. Prints for each between what times
/// that was.
int timed() {
    tellErrors();
    auto* stream = CQVXInstrumentingStream::get_Instance();
    unsigned n = 0;
    for (std::chrono::microseconds pause(1); pause < std::chrono::milliseconds(300); pause *= 2) {
        std::this_thread::sleep_for(pause);
        const long long before = clockNow();
        if (!stream->FunctionEnter(Quorvex::test::kFirstNumber + ++n))
            return 1;
        std::printf("%lld %lld\n", before, clockNow());
    }
    return 0;
}

/// Two threads enter COUNT functions in turn, each when the other one has.
int inTurn() {
    static std::atomic<unsigned> entered{0};
    const auto work = [](unsigned first) {
        auto* stream = CQVXInstrumentingStream::get_Instance();
        for (unsigned n = first; n <= setting("COUNT"); n += 2) {
            for (unsigned spins = 0; entered.load(std::memory_order_acquire) != n - 1; ++spins) {
                if (spins > 1000)
                    std::this_thread::yield();
            }
            stream->FunctionEnter(Quorvex::test::kFirstNumber + n);
            entered.store(n, std::memory_order_release);
        }
    };
    std::thread other(work, 2);
    work(1);
    other.join();
    return 0;
}

int off() {
    tellErrors();
    record(3);
    return CQVXInstrumentingStream::get_Instance() ? 1 : 0;
}

/// What the loop and the handlers have recorded. A number is one too small for a moment.
volatile unsigned g_outer = 0;
volatile unsigned g_inner = 0;
volatile unsigned g_exitAt = 0;

void tellAccepted() {
    interruptEvery(0, nullptr);
    std::printf("%u %u\n", g_outer, g_inner);
    std::fflush(stdout);
}

/// Records COUNT packets in a loop that signal handlers interrupt which record, too. Behind kFirstNumber the loop
/// enters the functions 1, 2, 3 ..., the handlers leave those. With EXIT, the handler that comes so many calls later
/// ends the program.
int interrupted() {
    static char buffer[100]; // what a handler prints must not be in need of memory
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    std::atexit(tellAccepted); // before the stream: it comes behind the completion of the traces
    auto* stream = CQVXInstrumentingStream::get_Instance();
    g_exitAt = setting("EXIT");
    const unsigned count = setting("COUNT");
    const auto handler = [] {
        static CQVXInstrumentingStream* const own = CQVXInstrumentingStream::get_Instance();
        const int before = errno;
        QUORVEX_TRACE_SCOPE("of the handler");
        if (own->FunctionLeave(Quorvex::test::kFirstNumber + g_inner + 1))
            g_inner = g_inner + 1;
        if (errno != before)
            std::_Exit(3);
        if (g_exitAt != 0 && g_inner >= g_exitAt)
            std::exit(0);
    };
    handler();
    if (!interruptEvery(50, handler))
        return Quorvex::test::kNotHere;
    errno = EPROTO;
    for (unsigned n = 1; n <= count; ++n) {
        // Every so often, a definition, whose set of ids grows, and pages that are written early.
        if (n % 512 == 0)
            stream->FunctionDefine("a function", Quorvex::test::kFirstNumber + n);
        if (n % 100'000 == 0)
            stream->flush();
        if (!stream->FunctionEnter(Quorvex::test::kFirstNumber + n))
            return 2;
        g_outer = n;
    }
    if (g_exitAt != 0) {
        while (true)
            stream->good();
    }
    return errno == EPROTO ? 0 : 4;
}

/// While the program's allocator is recorded, too; also for the first recording of all.
int allocating() {
    Quorvex::test::g_recordNew = true;
    recordAndTell(1000);
    std::thread([] { recordAndTell(10); }).join();
    Quorvex::test::g_recordNew = false;
    return 0;
}

int cancelled() {
    for (unsigned i = 0; i < 20; ++i) {
        static std::atomic<unsigned> calls;
        static unsigned thread;
        calls = 0;
        const auto work = [] {
            thread = CQVXInstrumentingStream::get_Instance()->SWCtx();
            while (true) {
                record(1000);
                calls += 1000;
                std::this_thread::sleep_for(std::chrono::microseconds(1));
            }
        };
        if (!Quorvex::test::runCancelled(work, [i] { return calls > 2000 * i; }))
            return Quorvex::test::kNotHere;
        std::printf("%u %u\n", thread, calls.load());
    }
    return 0;
}

/// Becomes the program anew: the same process, with the same thread, records a second time.
int replaced() {
    recordAndTell(20'000);
    Quorvex::test::become(g_program, {"nothing"});
    return Quorvex::test::kNotHere;
}

/// COUNT threads one after the other, and then 500 at once, in a process that may have 256 files open and has most of
/// them open itself.
int many() {
    constexpr unsigned kAtOnce = sizeof(void*) < 8 ? 100 : 500; // there is not room for more stacks in 32 bits
    constexpr std::size_t kOwn = 200;
    if (!Quorvex::test::limitOpenFiles(256))
        return Quorvex::test::kNotHere;
    std::vector<std::FILE*> own;
    for (std::size_t i = 0; i < kOwn; ++i)
        own.push_back(std::fopen("told", "rb"));
    const std::size_t openBefore = Quorvex::test::openFiles();
    recordAndTell(1);
    std::thread([] { recordAndTell(3); }).join();
    const std::size_t before = Quorvex::test::memoryInUse();
    const unsigned count = setting("COUNT");
    for (unsigned i = 0; i < count; ++i)
        std::thread([] { recordAndTell(3); }).join();
    std::fprintf(stderr, "%zu bytes for %u threads\n", Quorvex::test::memoryInUse() - before, count);
    if (setting("MEMORY") != 0 && Quorvex::test::memoryInUse() - before > setting("MEMORY"))
        return 1;
    std::atomic<unsigned> ready{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> all;
    for (unsigned i = 0; i < kAtOnce; ++i) {
        all.emplace_back([&] {
            record(2);
            ++ready;
            while (!go)
                std::this_thread::yield();
            record(1);
            const std::lock_guard lock(g_lock);
            std::printf("%u 3\n", CQVXInstrumentingStream::get_Instance()->SWCtx());
        });
    }
    while (ready < kAtOnce)
        std::this_thread::yield();
    const std::size_t open = Quorvex::test::openFiles();
    go = true;
    for (std::thread& thread : all)
        thread.join();
    if (open > openBefore + 16)
        return 2;
    for (std::FILE* file : own) {
        if (!file || std::fgetc(file) == EOF || std::fclose(file) != 0)
            return 3;
    }
    return 0;
}

/// Closes all files, the recorder's too, and opens some that then have their numbers.
int closing() {
    recordAndTell(20'000);
    if (!Quorvex::test::closeFiles())
        return Quorvex::test::kNotHere;
    std::FILE* own[10];
    for (std::FILE*& file : own)
        file = std::fopen("own", "ab");
    recordAndTell(20'000);
    for (std::FILE* file : own) {
        if (std::fclose(file) != 0)
            return 1;
    }
    return std::filesystem::file_size("own") == 0 ? 0 : 2;
}

/// A packet in whose middle the thread stays.
class StuckPacket : public Quorvex::CPacket {
public:
    unsigned write(char*, unsigned) override {
        ++stuck;
        while (true)
            std::this_thread::sleep_for(std::chrono::hours(1));
    }
    static inline std::atomic<unsigned> stuck{0};
};

/// Ends while threads are stuck in the middle of recording, and others are not.
int stuck() {
    constexpr unsigned kStuck = 8;
    for (unsigned i = 0; i < kStuck; ++i)
        std::thread([] {
            StuckPacket packet;
            CQVXInstrumentingStream::get_Instance()->put(&packet);
        }).detach();
    while (StuckPacket::stuck < kStuck)
        std::this_thread::yield();
    static const auto begin = std::chrono::steady_clock::now();
    std::atexit([] {
        if (std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(3 * 500))
            std::_Exit(5);
    });
    recordAndTell(3);
    return 0;
}

/// Where the disk fills up: one failure is reported, however much is recorded behind it.
int full() {
    if (!Quorvex::test::limitSpace("sub", 2 * Quorvex::kPageSize))
        return Quorvex::test::kNotHere;
    tellErrors();
    for (unsigned i = 0; i < 5; ++i)
        record(20'000);
    return CMessageQueue::g_Instance->size() <= 2 && CQVXInstrumentingStream::get_Instance()->refused() > 0 ? 0 : 1;
}

/// Records the n-th packet in one of the ways there are.
bool take(CQVXInstrumentingStream& stream, unsigned n) {
    std::unique_ptr<CPacket> packet = Quorvex::test::numberedPacket(n);
    switch (n % 4) {
    case 1: {
        CPacket* kept = packet.get();
        return stream.forward(kept);
    }
    case 2: {
        std::list<CPacket*> packets{packet.release()};
        return stream.forward(packets);
    }
    case 3: {
        std::stringstream wire;
        packet->write(wire);
        Quorvex::CTraceSourceBufferStream source(wire);
        return stream.put(source);
    }
    default:
        return stream.put(packet.get());
    }
}

/// Until it is killed. The file `taken` grows by a byte for each packet that cannot be lost any more.
int endless() {
    const bool mapped = Quorvex::platform::environment("QVX_TRACEMODE") == "mapped";
    std::FILE* const taken = std::fopen("taken", "wb");
    std::setvbuf(taken, nullptr, _IONBF, 0);
    auto* stream = CQVXInstrumentingStream::get_Instance();
    for (unsigned n = 1; take(*stream, n - 1); ++n) {
        if (mapped) {
            std::fputc('.', taken);
        } else if (n % Quorvex::test::kFlushed == 0) {
            stream->flush();
            std::fputs(std::string(Quorvex::test::kFlushed, '.').c_str(), taken);
        }
    }
    return 2;
}

/// Where there is little room for the trace: the reason is in the log, and recording ends. What the file system holds
/// then is copied to `left`.
int limited() {
    if (!Quorvex::test::limitSpace("sub", std::stoul(Quorvex::platform::environment("SPACE"))))
        return Quorvex::test::kNotHere;
    auto* stream = CQVXInstrumentingStream::get_Instance();
    unsigned taken = 0;
    while (taken < 50'000 && stream->put(Quorvex::test::numberedPacket(taken).get()))
        ++taken;
    stream->flush(); // puts what has failed into the log
    if (taken == 50'000 || stream->good() || stream->put(Quorvex::test::numberedPacket(0).get()))
        return 1;
    std::filesystem::copy_file(stream->path(), "left");
    if (std::filesystem::exists(stream->path() + ".page"))
        std::filesystem::copy_file(stream->path() + ".page", "left.page");
    std::printf("%u\n", taken);
    std::printf("%s", Quorvex::test::takeLog().c_str());
    return stream->refused() == 2 ? 0 : 3;
}

/// Two threads enter kSites places twice.
int toldOften() {
    static quorvex_site sites[Quorvex::test::kSites];
    const auto work = [] {
        for (unsigned i = 0; i < 2 * Quorvex::test::kSites; ++i) {
            const unsigned site = i % Quorvex::test::kSites;
            quorvex_leave(quorvex_enter(&sites[site], std::to_string(site % Quorvex::test::kNames).c_str()));
        }
    };
    std::thread one(work);
    std::thread other(work);
    one.join();
    other.join();
    return 0;
}

int unknownMode() {
    const bool recorded = CQVXInstrumentingStream::get_Instance()->good();
    return recorded && CMessageQueue::g_Instance->size() == 1 ? 0 : 1;
}

/// Goes back over what it has put, in the page and to a page before, and forth again.
int seeking() {
    auto* stream = CQVXInstrumentingStream::get_Instance();
    const auto put = [stream](unsigned first, unsigned last) {
        for (unsigned n = first; n < last; ++n)
            stream->put(Quorvex::test::numberedPacket(n).get());
    };
    put(0, 20'000);
    const std::uint64_t place = stream->tellp();
    put(20'000, 20'100);
    stream->seekp(place);
    put(20'200, 20'250);
    const std::uint64_t end = stream->tellp();
    stream->flush(); // what has not been flushed is dropped, too, when the position goes to another page
    if (!stream->seekp(Quorvex::kPageSize))
        return 1;
    stream->put(Quorvex::test::numberedPacket(1).get());
    stream->flush();
    return stream->seekp(end) ? 0 : 2;
}

/// Does nothing but ask where it is.
int nothing() {
    const auto* stream = CQVXInstrumentingStream::get_Instance();
    for (unsigned i = 0; stream && i < 1000; ++i) {
        if (stream->HWCtx() == Quorvex::platform::currentProcessor())
            return 0;
    }
    return 1;
}

int twice() {
    auto* stream = CQVXInstrumentingStream::get_Instance();
    const std::string leavesOneByte(260'073, 'x'); // of a page
    const bool defined = stream->FunctionDefine("f", 1) && stream->FunctionDefine("f", 1) &&
                         !stream->FunctionDefine(leavesOneByte.c_str(), 3) && stream->FunctionDefine("g", 2);
    return defined && stream == CQVXInstrumentingStream::get_Instance() ? 0 : 1;
}

int late() {
    static const Late before; // built before the first stream: destroyed after the traces are completed
    recordAndTell(4);
    return 0;
}

/// What there is to ask for.
constexpr std::pair<std::string_view, int (*)()> kModes[] = {
    {"allocating", allocating},
    {"cancelled", cancelled},
    {"closing", closing},
    {"displaced", displaced},
    {"endless", endless},
    {"execed", execed},
    {"forkedWhileBusy", forkedWhileBusy},
    {"forkedWhileInterrupted", forkedWhileInterrupted},
    {"forkedWithThreads", forkedWithThreads},
    {"full", full},
    {"interrupted", interrupted},
    {"late", late},
    {"limited", limited},
    {"limitedFiles", limitedFiles},
    {"many", many},
    {"nothing", nothing},
    {"off", off},
    {"replaced", replaced},
    {"resumed", resumed},
    {"running", running},
    {"seeking", seeking},
    {"shortLived", shortLived},
    {"stuck", stuck},
    {"threads", threads},
    {"toldInC", [] { return Quorvex::test::tellInC("a thread"); }},
    {"toldInCpp", [] { return Quorvex::test::tellInCpp("a \\ thread\n"); }},
    {"toldOften", toldOften},
    {"toldNothing", [] { return Quorvex::test::tellNothing("a thread"); }},
    {"twice", twice},
    {"unknownMode", unknownMode},
    {"unwritable", unwritable},
    {"unread", unread},
    {"unreadAndFull", unreadAndFull},
    {"unwritten", unwritten},
    {"logging", logging},
    {"timed", timed},
    {"inTurn", inTurn},
};

} // namespace

int main(int argc, char** argv) {
    g_program = argv[0];
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const auto* row = std::ranges::find_if(kModes, [mode](const auto& one) { return one.first == mode; });
    return row != std::end(kModes) ? row->second() : 100;
}
