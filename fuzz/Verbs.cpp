// Every verb of the program takes any file: it ends with 0, 1 or 3, and a conversion of what it could read has no
// damage, though its end may be missing.

#include "tools/qvx/Verbs.h"

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/analysis/TraceRules.h"
#include "tests/support/TemporaryDirectory.h"

#include <string>
#include <vector>

namespace Quorvex::fuzz {

namespace {

constexpr char kRules[] =
    "function \"*\" never longer than 5ms\nfunction \"f*\" called at most 3 times\n"
    "depth never above 2\nevent \"*\" after event \"*\" within 10\nevent \"*\" before event \"*\"\n"
    "counter \"*\" between -1.5 and 100\nmessage \"*e*\" never\ncore gap never longer than 1us\n"
    "thread gap never longer than 10\nno gap\nno loss";

int run(std::vector<std::string> arguments) {
    const int exitCode = qvx::run(arguments);
    takeLog();
    require(exitCode == 0 || exitCode == 1 || exitCode == 3, "exit codes");
    return exitCode;
}

} // namespace

void verbs(const std::string& data) {
    static const TemporaryDirectory directory;
    const std::string in = directory.write("in", data), out = directory.path("out"), again = directory.path("again");

    const int told = run({"info", in, "-f", "-o", out});
    const int found = run({"check", in, "-f", "-o", out});
    require(told == 1 ? found == 1 : told == 0 || found == 3, "check finds what info tells of");
    run({"stats", in, "-f", "-o", out, "--by", "thread", "--format", "json"});
    if (run({"digest", in, "-f", "-o", out}) != 1)
        require(run({"diff", in, in, "-f", "-o", out}) != 1, "a trace tells what it tells");
    run({"graph", in, "-f", "-o", out, "--by", "thread", "--folded", "--depth", "20"});
    run({"assert", in, "-f", "-o", out, "--format", "junit", "--rule", kRules});
    TraceRules().add(data, "any text");
    for (const char* format : {"text", "json", "plain", "html", "latex", "verbose"})
        run({"dump", in, "-f", "-o", out, "--format", format});
    for (const char* form : {"", "--absolute", "--relative"}) {
        for (const char* layout : {"--plain", "--paged"}) {
            std::vector<std::string> convert{"convert", in, "-f", "-o", out, layout};
            if (*form)
                convert.emplace_back(form);
            if (run(convert) != 1) {
                require(run({"info", out, "-f", "-o", again}) != 1, "a conversion is a trace");
                require(directory.content("again").find("\nDamage:    none\n") != std::string::npos,
                        "a conversion has no damage");
            }
        }
    }
    for (const char* part : {"--from=100", "--pages=0:1", "--kind=*Enter", "--no-state"})
        run({"cut", in, "-f", "-o", out, part});
    for (const char* part : {"--from=100", "--kind=*Enter"}) {
        run({"convert", in, in, "-f", "-o", out, part});
        if (run({"merge", in, in, "-f", "-o", out, part}) != 1)
            require(run({"info", out, "-f", "-o", again}) == 0, "a merge of parts is a whole trace");
    }
    run({"split", in, "-f", "-o", out, "--size", "256K"});
    run({"split", in, "-f", "-o", out, "--by", "thread"});
    run({"cat", in, in, "-f", "-o", out});
    if (run({"merge", in, in, "-f", "-o", out}) != 1) {
        require(run({"info", out, "-f", "-o", again}) != 1, "a merge is a trace");
        const std::string info = directory.content("again");
        require(info.find("\nDamage:    none\n") != std::string::npos, "a merge has no damage");
        require(info.find("\nEnd:       complete\n") != std::string::npos, "a merge is whole");
    }
    run({"repair", in, "-f", "-o", out});
    run({"export", in, "-f", "-o", out, "--to", "vcd", "--save", again});
    run({"export", in, "-f", "-o", out, "--to", "btf"});
    run({"report", in, "-f", "-o", out});
}

} // namespace Quorvex::fuzz
