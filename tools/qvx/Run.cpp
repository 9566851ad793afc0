#include "Verbs.h"
#include "quorvex/export/Characters.h"
#include "quorvex/platform/System.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <sstream>
#include <string_view>
#include <vector>

namespace qvx {

std::string shown(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const Quorvex::Character character = Quorvex::firstCharacter(text);
        for (unsigned i = 0; i < character.size; ++i) {
            if (character.printable)
                out += text[i];
            else
                out += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[i]));
        }
        text.remove_prefix(character.size);
    }
    return out;
}

void tell(std::string_view text) {
    // There is no place to report that there is nobody to report to.
    std::fputs(("qvx: " + shown(text) + "\n").c_str(), stderr);
}

int run(std::vector<std::string> arguments) {
    CLI::App program("Shows, converts and exports trace files of the Quorvex format.", "qvx");
    program.set_version_flag("--version", "qvx " QVX_VERSION " (trace format 0)");
    program.require_subcommand(1);
    program.allow_windows_style_options(false); // /FILE is a file on every system
    program.get_formatter()->column_width(28);
    program.footer("`qvx FILE` alone is `qvx info FILE`. Exit codes: 0 done, 1 failed, 2 wrong use,\n"
                   "3 done with loss (damage was stepped over, the end is missing, or the target format cannot\n"
                   "show all).");
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
        std::stringstream out, complaint;
        const bool isHelp = program.exit(error, out, complaint) == 0;
        for (std::string line; std::getline(complaint, line);)
            std::fputs((shown(line) + "\n").c_str(), stderr);
        errno = 0;
        if (std::fputs(out.str().c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
            tell("standard output: " + Quorvex::platform::errorText(errno));
            return Failed;
        }
        return isHelp ? Done : WrongUse;
    } catch (const NobodyReads&) {
        return Failed;
    } catch (const std::exception& error) {
        tell(error.what());
        return Failed;
    }
}

} // namespace qvx
