// Any bytes may be what another tool has written: a trace that is made of them is whole and legal. But where a file
// that qvx export has written tells that a thread was there, and not of what, the trace leaves a function there that it
// has never entered.

#include "fuzz/Targets.h"
#include "tests/support/Doubles.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/qvx/Verbs.h"
#include "tools/qvx/import/Importers.h"

#include <sstream>

namespace Quorvex::fuzz {

namespace {

/// Whether all lines but the last, which counts them, are about leaves of the function that there is not.
bool onlyLeavesNothing(const std::string& findings) {
    std::istringstream lines(findings);
    std::string line, next;
    std::getline(lines, line);
    while (std::getline(lines, next)) {
        if (line.find(": FunctionLeave ") == std::string::npos ||
            line.find(" function 0xfffffffe, ") == std::string::npos)
            return false;
        line = next;
    }
    return true;
}

} // namespace

void import(const std::string& data) {
    static const test::TemporaryDirectory directory;
    const std::string in = directory.write("in", data), out = directory.path("out");
    for (const qvx::Importer& format : qvx::importers()) {
        const int exitCode = qvx::run({"import", in, "--format", std::string(format.name), "-f", "-o", out});
        require(exitCode == 0 || exitCode == 1 || exitCode == 3, "exit codes");
        if (exitCode != 1)
            require(qvx::run({"check", out, "-f", "-o", directory.path("findings")}) == 0 ||
                        onlyLeavesNothing(directory.content("findings")),
                    "what is made is legal");
        test::takeLog();
    }
}

} // namespace Quorvex::fuzz
