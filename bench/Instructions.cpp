// What instructions.sh counts.
//
//     quorvex_instructions                         tells the compiler, and the paths that are counted
//     quorvex_instructions PATH PACKETS PASSES     runs one over a trace of that many packets, that many times

#include "bench/Paths.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

/// What valgrind counts, which knows it by its name.
extern "C" [[gnu::noinline]] void counted(bench::Path& path, unsigned packets, unsigned passes) {
    for (unsigned i = 0; i < passes; ++i)
        path.run(packets);
}

int main(int argc, char** argv) {
    if (argc == 1)
        std::printf("compiler %s\n", QUORVEX_COMPILER);
    for (const bench::PathRow& row : bench::paths()) {
        if (!row.isCounted)
            continue;
        if (argc == 1) {
            std::printf("%s\n", row.name);
        } else if (argc == 4 && row.name == std::string_view(argv[1])) {
            const auto packets = static_cast<unsigned>(std::atoi(argv[2]));
            const std::unique_ptr<bench::Path> path = row.make(packets);
            path->run(packets); // what is done only once
            counted(*path, packets, static_cast<unsigned>(std::atoi(argv[3])));
        }
    }
}
