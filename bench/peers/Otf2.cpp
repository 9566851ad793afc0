// The Open Trace Format 2, by its own library.
//
//     Otf2 record EVENTS DIRECTORY    function enters and leaves, each with the clock read; the directory is new
//     Otf2 write EVENTS DIRECTORY     those of bench/Calls.h
//     Otf2 read EVENTS DIRECTORY      all of them by callbacks

#include "bench/Calls.h"
#include "bench/peers/Work.h"

#include <cstdint>
#include <ctime>
#include <otf2/otf2.h>
#include <string>
#include <string_view>

namespace {

constexpr OTF2_LocationRef kThread = 0;

OTF2_FlushType flushFirst(void*, OTF2_FileType, OTF2_LocationRef, void*, bool) {
    return OTF2_FLUSH;
}
OTF2_TimeStamp noTime(void*, OTF2_FileType, OTF2_LocationRef) {
    return 0;
}

void writeDefinitions(OTF2_Archive* archive, unsigned events, std::uint64_t lastTick) {
    OTF2_Archive_OpenDefFiles(archive);
    OTF2_Archive_CloseDefWriter(archive, OTF2_Archive_GetDefWriter(archive, kThread));
    OTF2_Archive_CloseDefFiles(archive);
    OTF2_GlobalDefWriter* to = OTF2_Archive_GetGlobalDefWriter(archive);
    OTF2_GlobalDefWriter_WriteClockProperties(to, bench::kTicksPerSecond, 0, lastTick + 1, OTF2_UNDEFINED_TIMESTAMP);
    for (unsigned i = 0; i < bench::kFunctions; ++i) {
        OTF2_GlobalDefWriter_WriteString(to, i, ("function_" + std::to_string(i)).c_str());
        OTF2_GlobalDefWriter_WriteRegion(to, i, i, i, i, OTF2_REGION_ROLE_FUNCTION, OTF2_PARADIGM_USER,
                                         OTF2_REGION_FLAG_NONE, OTF2_UNDEFINED_STRING, 0, 0);
    }
    OTF2_GlobalDefWriter_WriteString(to, bench::kFunctions, "machine, process and thread");
    OTF2_GlobalDefWriter_WriteSystemTreeNode(to, 0, bench::kFunctions, bench::kFunctions,
                                             OTF2_UNDEFINED_SYSTEM_TREE_NODE);
    OTF2_GlobalDefWriter_WriteLocationGroup(to, 0, bench::kFunctions, OTF2_LOCATION_GROUP_TYPE_PROCESS, 0,
                                            OTF2_UNDEFINED_LOCATION_GROUP);
    OTF2_GlobalDefWriter_WriteLocation(to, kThread, bench::kFunctions, OTF2_LOCATION_TYPE_CPU_THREAD, events, 0);
}

/// Writes an archive of what `next` returns.
template <class Next> unsigned write(unsigned events, const char* directory, Next&& next) {
    const OTF2_FlushCallbacks flush{flushFirst, noTime};
    OTF2_Archive* archive = OTF2_Archive_Open(directory, "trace", OTF2_FILEMODE_WRITE, 1024 * 1024, 4 * 1024 * 1024,
                                              OTF2_SUBSTRATE_POSIX, OTF2_COMPRESSION_NONE);
    OTF2_Archive_SetFlushCallbacks(archive, &flush, nullptr);
    OTF2_Archive_SetSerialCollectiveCallbacks(archive);
    OTF2_Archive_OpenEvtFiles(archive);
    OTF2_EvtWriter* writer = OTF2_Archive_GetEvtWriter(archive, kThread);
    bench::Calls::Event event{};
    bool done = true;
    for (unsigned i = 0; i < events; ++i) {
        event = next();
        done &= (event.isEnter ? OTF2_EvtWriter_Enter(writer, nullptr, event.tick, event.function)
                               : OTF2_EvtWriter_Leave(writer, nullptr, event.tick, event.function)) == OTF2_SUCCESS;
    }
    OTF2_Archive_CloseEvtWriter(archive, writer);
    OTF2_Archive_CloseEvtFiles(archive);
    writeDefinitions(archive, events, event.tick);
    return OTF2_Archive_Close(archive) == OTF2_SUCCESS && done ? events : 0;
}

unsigned record(unsigned events, const char* directory) {
    return write(events, directory, [isEnter = false]() mutable {
        isEnter = !isEnter;
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const auto tick =
            static_cast<std::uint64_t>(now.tv_sec) * bench::kTicksPerSecond + static_cast<std::uint64_t>(now.tv_nsec);
        return bench::Calls::Event{tick, 7, isEnter};
    });
}

struct Met {
    unsigned events = 0;
    std::uint64_t sum = 0;
};
OTF2_CallbackCode meet(OTF2_LocationRef, OTF2_TimeStamp tick, std::uint64_t, void* data, OTF2_AttributeList*,
                       OTF2_RegionRef function) {
    Met& met = *static_cast<Met*>(data);
    met.sum += tick + function;
    ++met.events;
    return OTF2_CALLBACK_SUCCESS;
}

unsigned read(const std::string& directory) {
    OTF2_Reader* reader = OTF2_Reader_Open((directory + "/trace.otf2").c_str());
    OTF2_Reader_SetSerialCollectiveCallbacks(reader);
    OTF2_Reader_SelectLocation(reader, kThread);
    OTF2_Reader_OpenEvtFiles(reader);
    OTF2_EvtReader* events = OTF2_Reader_GetEvtReader(reader, kThread);
    OTF2_EvtReaderCallbacks* callbacks = OTF2_EvtReaderCallbacks_New();
    OTF2_EvtReaderCallbacks_SetEnterCallback(callbacks, meet);
    OTF2_EvtReaderCallbacks_SetLeaveCallback(callbacks, meet);
    Met met;
    OTF2_Reader_RegisterEvtCallbacks(reader, events, callbacks, &met);
    OTF2_EvtReaderCallbacks_Delete(callbacks);
    std::uint64_t count = 0;
    OTF2_Reader_ReadAllLocalEvents(reader, events, &count);
    OTF2_Reader_CloseEvtReader(reader, events);
    OTF2_Reader_CloseEvtFiles(reader);
    OTF2_Reader_Close(reader);
    return met.events;
}

} // namespace

int main(int, char** argv) {
    const std::string_view what = argv[1];
    const unsigned events = eventsOf(argv);
    return measure(events, [&] {
        if (what == "record")
            return record(events, argv[3]);
        if (what == "read")
            return read(argv[3]);
        bench::Calls calls(events);
        return write(events, argv[3], [&calls] { return calls.next(); });
    });
}
