// Runs the targets on files, without a fuzzer.
//
//     replay TARGET FILE_OR_DIRECTORY...   the inputs that are kept
//     replay --seeds DIRECTORY             writes inputs to begin with: a directory for each target

#include "fuzz/Targets.h"
#include "quorvex/export/PacketPlain.h"
#include "tests/support/Bytes.h"
#include "tests/support/Samples.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

namespace {

using namespace Quorvex;
namespace fs = std::filesystem;

unsigned replay(fuzz::Target target, const fs::path& path) {
    if (fs::is_directory(path)) {
        unsigned count = 0;
        for (const auto& entry : fs::directory_iterator(path))
            count += replay(target, entry.path());
        return count;
    }
    if (!fs::exists(path))
        return 0;
    target(test::contentOf(path));
    test::takeLog();
    return 1;
}

void writeSeeds(const fs::path& directory) {
    std::string all;
    std::stringstream table;
    CPacketPlain rows(table, false, 0);
    rows.SetParsable(true);
    for (const auto& [name, target] : fuzz::kTargets)
        fs::create_directories(directory / name);
    const auto write = [&](const char* target, const std::string& name, const std::string& content) {
        std::ofstream(directory / target / name, std::ios::binary) << content;
    };
    for (const test::Sample& sample : test::samples()) {
        const std::string bytes = test::bytes(sample.wire);
        write("packet", sample.name, bytes);
        all += bytes;
        rows.put(std::unique_ptr<CPacket>(sample.make()).get());
    }
    for (const char* target : {"reader", "cursor", "pages", "compressor", "table", "viewers", "verbs"}) {
        write(target, "samples", all);
        for (std::size_t at = 0; at < all.size(); at += 200)
            write(target, "part" + std::to_string(at), all.substr(at, 200));
    }
    constexpr unsigned kTogether = 8; // for the verbs, of which there are many
    std::string together;
    unsigned number = 0;
    for (std::string row; std::getline(table, row);) {
        write("text", "row" + std::to_string(number), row + "\n");
        together += row + "\n";
        if (++number % kTogether == 0 || table.peek() == std::char_traits<char>::eof())
            write("verbs", "rows" + std::to_string(number), std::exchange(together, {}));
    }
    write("signalMask", "bits", "0110100110010110");
    constexpr const char* kForeign[] = {
        R"([{"ph":"X","name":"f","ts":1.5,"dur":"2e1","pid":1,"tid":2},{"ph":"B","name":"g","ts":2,"pid":1,"tid":2},
            {"ph":"E","ts":3,"pid":1,"tid":2},{"ph":"C","name":"c","ts":4,"pid":1,"args":{"a":1,"b":-2.5}},)",
        R"({"traceEvents":[{"ph":"b","name":"f","cat":"n","id":"0x1","ts":1,"pid":-1},{"ph":"i","name":"e","ts":2},
            {"ph":"M","name":"thread_name","pid":1,"tid":"two","args":{"name":"main"}}]})",
        R"({"metadata":{"exporter":"Quorvex 0.1.0","first_tick":"1000","ticks_per_second":"3000000000"},"traceEvents":[
            {"ph":"M","name":"thread_name","pid":0,"tid":3,"args":{"name":"core 0"}},
            {"ph":"B","name":"f","cat":"call","pid":1,"tid":7,"ts":0.001},
            {"ph":"C","name":"c[2]","cat":"counter","pid":0,"tid":2,"ts":0.002,"thread":7,"args":{"ms":0.5}},
            {"ph":"i","s":"t","name":"ExecInsn","cat":"event","pid":1,"tid":7,"ts":0.003,"args":{"IP":"0x4000"}},
            {"ph":"E","name":"f","cat":"call","pid":1,"tid":7,"ts":0.003,"args":{"left":false}},
            {"ph":"B","name":"thread 7","cat":"run","pid":0,"tid":3,"ts":0.001},
            {"ph":"E","name":"thread 7","cat":"run","pid":0,"tid":3,"ts":0.003},
            {"ph":"B","name":"1x","cat":"signal","pid":0,"tid":8,"ts":0.004},
            {"ph":"B","name":"on","cat":"state","pid":0,"tid":6,"ts":0.005,"args":{"Transition":"0x9","Data":"0x07"}}]})",
        "main;f 3\nmain;f;g 2\nmain;h 18446744073709551615\n",
        "a b 12/13 [001] 5.000001:  100 cycles:u:\n\t  7f00 main+0x1 (/bin/a)\n\t  7f01 [unknown] (x)\n\n"
        "a 12 [1] 6.5: sched:sched_switch: prev_comm=a prev_pid=12 prev_prio=1 ==> next_comm=b next_pid=0\n",
        "$timescale 10 ns $end $scope module m $end $var wire 1 ! b $end $var integer 32 # i $end $var real 64 % r "
        "$end "
        "$upscope $end $enddefinitions $end $dumpvars x! bx # r0 % $end #5 1! b101 # r-1.5 % #4 0!",
    };
    for (unsigned i = 0; i < std::size(kForeign); ++i)
        write("import", std::to_string(i), kForeign[i]);
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--seeds") == 0) {
        writeSeeds(argv[2]);
        return 0;
    }
    for (const auto& [name, target] : fuzz::kTargets) {
        if (argc < 3 || std::strcmp(name, argv[1]) != 0)
            continue;
        bool all = true;
        for (int i = 2; i < argc; ++i) {
            const unsigned count = replay(target, argv[i]);
            std::printf("%s: %u inputs in %s\n", name, count, argv[i]);
            all = all && count > 0;
        }
        return all ? 0 : 1;
    }
    std::fprintf(stderr, "usage: replay TARGET FILE_OR_DIRECTORY... | replay --seeds DIRECTORY\n");
    return 2;
}
