#pragma once

#include <stdexcept>
#include <string>
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

/// Runs the program with arguments; what it returns is an ExitCode.
int run(std::vector<std::string> arguments);

/// Each verb adds its options to the program and sets `run`-callback code to `exitCode`.
void addInfo(CLI::App& program, ExitCode& exitCode);
void addDump(CLI::App& program, ExitCode& exitCode);
void addKinds(CLI::App& program, ExitCode& exitCode);
void addConvert(CLI::App& program, ExitCode& exitCode);
void addExport(CLI::App& program, ExitCode& exitCode);

} // namespace qvx
