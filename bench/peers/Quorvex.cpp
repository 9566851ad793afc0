// The work of the others, by Quorvex.
//
//     Quorvex record EVENTS             calls of a function that traces itself; to where the environment tells
//     Quorvex write EVENTS FILE         the trace of bench/Traces.h, paged
//     Quorvex read|lists EVENTS FILE    all packets into objects, one by one or in lists

#include "bench/Traces.h"
#include "bench/peers/Work.h"

#include <list>
#include <string_view>
#include <thread>

namespace {

using namespace Quorvex;

[[gnu::noinline]] void traced() {
    QUORVEX_TRACE_FUNCTION();
    doNothing();
}

unsigned record(unsigned events) {
    // The trace is complete when its thread has ended.
    std::thread([events] {
        for (unsigned i = 0; i < events / 2; ++i)
            traced();
    }).join();
    return events;
}

unsigned write(unsigned events, const char* path) {
    CTraceFileWriterPaged writer(path);
    bench::forCallPackets(bench::packetsOfCalls(events), [&writer](CPacket& packet) { writer.put(&packet); });
    return writer.close() ? events : 0;
}

unsigned isEvent(const CPacket& packet) {
    return packet.TraceCode() == FunctionEnter || packet.TraceCode() == FunctionLeave;
}

unsigned read(const char* path) {
    CTraceSourceBufferFile file;
    file.open(path);
    CTraceReaderPlain reader(file);
    unsigned events = 0;
    while (CPacket* packet = reader.get()) {
        events += isEvent(*packet);
        CPacketFactory::releaseCPacket(&packet);
    }
    return events;
}

unsigned readLists(const char* path) {
    CTraceSourceBufferFile file;
    file.open(path);
    CTraceReaderPlain reader(file);
    unsigned events = 0;
    std::list<CPacket*> packets;
    while (reader.get(packets)) {
        for (const CPacket* packet : packets)
            events += isEvent(*packet);
        CPacketFactory::release(packets);
    }
    return events;
}

} // namespace

int main(int, char** argv) {
    const std::string_view what = argv[1];
    return measure(eventsOf(argv), [&] {
        return what == "record"  ? record(eventsOf(argv))
               : what == "write" ? write(eventsOf(argv), argv[3])
               : what == "read"  ? read(argv[3])
                                 : readLists(argv[3]);
    });
}
