// Records itself in the way that its argument names, and prints for each of its threads what a reader must find:
// "THREAD ENTERS". Ends with 0 unless something is wrong.

#include "quorvex/platform/System.h"
#include "quorvex/quorvex.h"
#include "tests/instrument/NumberedPackets.h"
#include "tests/support/Bytes.h"
#include "tests/support/System.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Quorvex::CPacket;
using Quorvex::CQVXInstrumentingStream;

std::mutex g_lock;

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

int running() {
    static std::atomic<unsigned> started{0};
    for (unsigned i = 0; i < 4; ++i)
        std::thread([] {
            record(2);
            ++started;
            while (true)
                record(50);
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
    recordAndTell(2000);
    return forkAndRecord([] { std::thread(recordAndTell, 7).join(); });
}

/// Forks while another thread is recording. (That thread allocates nothing then, and the child starts no thread: the
/// allocator and the threads of a checked build do not survive more.)
int forkedWhileBusy() {
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

int execed() {
    recordAndTell(5);
    return Quorvex::test::fork([] { std::_Exit(0); }, [] {}); // ends without completing anything
}

/// Where nothing can be written: one message for each thread, and everything refused is counted.
int unwritable() {
    record(100);
    std::thread([] { record(100); }).join();
    auto* stream = CQVXInstrumentingStream::get_Instance();
    const unsigned messages = CMessageQueue::g_Instance->size();
    while (const auto message = CMessageQueue::g_Instance->pop()) {
        if (!(message->Message() == ATL::CComBSTR("CQVXInstrumentingStream: Error opening trace file!")))
            return 2;
    }
    // 100 enters and leaves, and two definitions.
    if (messages != 2 || stream->good() || stream->error() == 0 || stream->refused() != 202)
        return 3;
    return 0;
}

/// Where the disk fills up: one failure is reported, however much is recorded behind it. The name of the file that this
/// thread will open leads to the full device.
int full() {
    std::filesystem::create_symlink("/dev/full",
                                    "thread_" + std::to_string(Quorvex::platform::currentThreadId()) + ".qvx");
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
    if (taken == 50'000 || stream->good() || stream->put(Quorvex::test::numberedPacket(0).get()))
        return 1;
    std::filesystem::copy_file(stream->path(), "left");
    if (std::filesystem::exists(stream->path() + ".page"))
        std::filesystem::copy_file(stream->path() + ".page", "left.page");
    std::printf("%u\n", taken);
    std::printf("%s", Quorvex::test::takeLog().c_str());
    return stream->refused() == 2 ? 0 : 3;
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

int nothing() {
    return CQVXInstrumentingStream::get_Instance() ? 0 : 1;
}

int twice() {
    auto* stream = CQVXInstrumentingStream::get_Instance();
    const bool defined =
        stream->FunctionDefine("f", 1) && stream->FunctionDefine("f", 1) && stream->FunctionDefine("g", 2);
    return defined && stream == CQVXInstrumentingStream::get_Instance() ? 0 : 1;
}

int late() {
    static const Late before; // built before the first stream: destroyed after the traces are completed
    recordAndTell(4);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::map<std::string, std::function<int()>> modes = {{"threads", threads},
                                                               {"shortLived", shortLived},
                                                               {"running", running},
                                                               {"forkedWithThreads", forkedWithThreads},
                                                               {"forkedWhileBusy", forkedWhileBusy},
                                                               {"execed", execed},
                                                               {"unwritable", unwritable},
                                                               {"full", full},
                                                               {"endless", endless},
                                                               {"limited", limited},
                                                               {"unknownMode", unknownMode},
                                                               {"seeking", seeking},
                                                               {"nothing", nothing},
                                                               {"twice", twice},
                                                               {"late", late}};
    const auto mode = modes.find(argc > 1 ? argv[1] : "");
    return mode == modes.end() ? 100 : mode->second();
}
