#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// How the program ends.
enum ExitCode : int {
    Done = 0,
    Failed = 1,
    WrongUse = 2,
    DoneWithLoss = 3, ///< damage was stepped over, the end is missing, or the target cannot show all
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

class Program;

/// Each adds its verb to the program.
void addInfo(Program& program);
void addDump(Program& program);
void addStats(Program& program);
void addWatch(Program& program);
void addGraph(Program& program);
void addCheck(Program& program);
void addAssert(Program& program);
void addDiff(Program& program);
void addDigest(Program& program);
void addCut(Program& program);
void addSplit(Program& program);
void addCat(Program& program);
void addMerge(Program& program);
void addConvert(Program& program);
void addRepair(Program& program);
void addExport(Program& program);
void addImport(Program& program);
void addRecord(Program& program);
void addReport(Program& program);
void addView(Program& program);
void addKinds(Program& program);

} // namespace qvx
