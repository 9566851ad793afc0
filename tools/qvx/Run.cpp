#include "Verbs.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <string_view>
#include <vector>

namespace qvx {

int run(std::vector<std::string> arguments) {
    CLI::App program("Shows, converts and exports trace files of the Quorvex format.", "qvx");
    program.set_version_flag("--version", "qvx " QVX_VERSION " (trace format 0)");
    program.require_subcommand(1);
    program.allow_windows_style_options(false); // /FILE is a file on every system
    program.get_formatter()->column_width(28);
    program.footer("`qvx FILE` alone is `qvx info FILE`. Exit codes: 0 done, 1 failed, 2 wrong use,\n"
                   "3 done with loss (damage was stepped over, or the target format cannot show all).");
    ExitCode exitCode = Done;
    addInfo(program, exitCode);
    addDump(program, exitCode);
    addConvert(program, exitCode);
    addExport(program, exitCode);
    addKinds(program, exitCode);

    if (!arguments.empty()) {
        const std::string& first = arguments.front();
        const bool isFile = first == "-" || first.front() != '-';
        const auto isVerb = [&first](const CLI::App* verb) { return verb->check_name(first); };
        if (isFile && program.get_subcommands(isVerb).empty())
            arguments.insert(arguments.begin(), "info");
    }
    // The parser takes the arguments last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        program.parse(reversed);
        return exitCode;
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? Done : WrongUse;
    } catch (const std::exception& error) {
        fmt::print(stderr, "qvx: {}\n", error.what());
        return Failed;
    }
}

} // namespace qvx
