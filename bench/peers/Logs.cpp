// A line of text for each function enter and leave, with the time of the day.
//
//     Logs fprintf|spdlog EVENTS FILE

#include "bench/peers/Work.h"

#include <ctime>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <string_view>

namespace {

unsigned byFprintf(unsigned events, const char* path) {
    std::FILE* file = std::fopen(path, "w");
    for (unsigned i = 0; i < events; ++i) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        std::fprintf(file, "%lld.%09ld %s %u\n", static_cast<long long>(now.tv_sec), now.tv_nsec,
                     i % 2 == 0 ? "enter" : "leave", 7U);
    }
    return std::fclose(file) == 0 ? events : 0;
}

unsigned bySpdlog(unsigned events, const char* path) {
    const auto log = spdlog::basic_logger_st("calls", path, true);
    for (unsigned i = 0; i < events; ++i)
        log->info("{} {}", i % 2 == 0 ? "enter" : "leave", 7U);
    log->flush();
    spdlog::shutdown();
    return events;
}

} // namespace

int main(int, char** argv) {
    const unsigned events = eventsOf(argv);
    return measure(events, [&] {
        return argv[1] == std::string_view("fprintf") ? byFprintf(events, argv[3]) : bySpdlog(events, argv[3]);
    });
}
