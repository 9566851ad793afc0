#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace qvx {

/// How the program ends.
enum ExitCode : int {
    Done = 0,
    Failed = 1,
    WrongUse = 2,
    DoneWithLoss = 3, ///< damage was stepped over, or the target cannot show all
};

/// A failure that ends the verb; reported as "qvx: FILE: TEXT".
class Failure : public std::runtime_error {
public:
    Failure(const std::string& file, const std::string& text) : std::runtime_error(file + ": " + text) {}
};

/// The reader of the output has gone, which is no reason to say anything.
class NobodyReads : public std::exception {};

/// A text as it can be shown in a terminal: other characters as \xNN, byte by byte. Names of files may hold anything.
std::string shown(std::string_view text);
/// Says a line on standard error: "qvx: TEXT", as it can be shown.
void tell(std::string_view text);

/// Runs the program with arguments; what it returns is an ExitCode.
int run(std::vector<std::string> arguments);

/// Each verb adds its options to the program and sets `run`-callback code to `exitCode`.
void addInfo(CLI::App& program, ExitCode& exitCode);
void addDump(CLI::App& program, ExitCode& exitCode);
void addKinds(CLI::App& program, ExitCode& exitCode);
void addConvert(CLI::App& program, ExitCode& exitCode);
void addExport(CLI::App& program, ExitCode& exitCode);

} // namespace qvx
