// Every verb of the program takes any file: it ends with 0, 1 or 3, and a conversion of what it could read has no
// damage, though its end may be missing.

#include "tools/qvx/Verbs.h"

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace Quorvex::fuzz {

namespace {

int run(std::vector<std::string> arguments) {
    const int exitCode = qvx::run(arguments);
    takeLog();
    require(exitCode == 0 || exitCode == 1 || exitCode == 3, "exit codes");
    return exitCode;
}

} // namespace

void verbs(const std::string& data) {
    static const std::filesystem::path kDirectory = [] {
        std::string name = (std::filesystem::temp_directory_path() / "quorvex_fuzz_XXXXXX").string();
        return std::filesystem::path(mkdtemp(name.data()));
    }();
    const std::string in = kDirectory / "in", out = kDirectory / "out", again = kDirectory / "again";
    std::ofstream(in, std::ios::binary) << data;

    run({"info", in, "-f", "-o", out});
    for (const char* format : {"plain", "html", "latex", "verbose"})
        run({"dump", in, "-f", "-o", out, "--format", format});
    for (const char* form : {"", "--absolute", "--relative"}) {
        for (const char* layout : {"--plain", "--paged"}) {
            std::vector<std::string> convert{"convert", in, "-f", "-o", out, layout};
            if (*form)
                convert.emplace_back(form);
            if (run(convert) != 1) {
                require(run({"info", out, "-f", "-o", again}) != 1, "a conversion is a trace");
                std::ifstream info(again);
                const std::string text{std::istreambuf_iterator<char>(info), {}};
                require(text.find("\nDamage:    none\n") != std::string::npos, "a conversion has no damage");
            }
        }
    }
    run({"export", in, "-f", "-o", out, "--to", "vcd", "--save", again});
    run({"export", in, "-f", "-o", out, "--to", "btf"});
}

} // namespace Quorvex::fuzz
