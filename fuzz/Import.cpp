// Any bytes may be what another tool has written: a trace that is made of them is whole and legal.

#include "fuzz/Targets.h"
#include "tests/support/Doubles.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/qvx/Verbs.h"
#include "tools/qvx/import/Importers.h"

namespace Quorvex::fuzz {

void import(const std::string& data) {
    static const test::TemporaryDirectory directory;
    const std::string in = directory.write("in", data), out = directory.path("out");
    for (const qvx::Importer& format : qvx::importers()) {
        const int exitCode = qvx::run({"import", in, "--format", std::string(format.name), "-f", "-o", out});
        require(exitCode == 0 || exitCode == 1 || exitCode == 3, "exit codes");
        if (exitCode != 1)
            require(qvx::run({"check", out, "-f", "-o", directory.path("findings")}) == 0, "what is made is legal");
        test::takeLog();
    }
}

} // namespace Quorvex::fuzz
