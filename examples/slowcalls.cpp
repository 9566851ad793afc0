// Shows the calls of a function that took longer than they may.
//
//     slowcalls FUNCTION MILLISECONDS TRACE...

#include "quorvex/analysis/Trace.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <string>
#include <vector>

static void show(const std::string& function, std::uint64_t most, const std::vector<std::string>& files) {
    std::map<std::uint32_t, std::vector<std::uint64_t>> entered; // by thread; the innermost call is the last
    for (const auto& packet : Quorvex::trace(files)) {
        const auto thread = packet.thread();
        const auto time = packet.nanoseconds();
        if (packet.name() != function || !thread || !time)
            continue;
        std::vector<std::uint64_t>& calls = entered[*thread];
        if (packet.kind() == "FunctionEnter") {
            calls.push_back(*time);
        } else if (packet.kind() == "FunctionLeave" && !calls.empty()) {
            const std::uint64_t took = *time - calls.back();
            calls.pop_back();
            if (took > most)
                std::cout << "thread " << *thread << ": " << took / 1'000'000 << " ms\n";
        }
    }
}

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: slowcalls FUNCTION MILLISECONDS TRACE...\n";
        return 2;
    }
    try {
        show(argv[1], std::strtoull(argv[2], nullptr, 10) * 1'000'000, {argv + 3, argv + argc});
    } catch (const std::exception& error) {
        std::cerr << "slowcalls: " << error.what() << '\n';
        return 1;
    }
}
