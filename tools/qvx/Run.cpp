#include "Arguments.h"
#include "Verbs.h"
#include "Work.h"
#include "quorvex/format/Characters.h"

#include <fmt/format.h>

#include <cstdio>
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
    Work::now().makeRoom();
    // There is no place to report that there is nobody to report to.
    std::fputs(("qvx: " + shown(text) + "\n").c_str(), stderr);
}

int run(std::vector<std::string> arguments) {
    Program program("Shows, questions, cuts, joins, converts and mends trace files of the Quorvex format.",
                    "qvx " QVX_VERSION " (trace format 0)",
                    "`qvx FILE` alone is `qvx info FILE`, and `qvx help VERB` is `qvx VERB --help`. Exit codes:\n"
                    "0 done, 1 failed, 2 wrong use, 3 done with loss (damage was stepped over, the end is missing,\n"
                    "or the target format cannot show all).");
    addInfo(program);
    addDump(program);
    addStats(program);
    addWatch(program);
    addGraph(program);
    addCheck(program);
    addAssert(program);
    addDiff(program);
    addDigest(program);
    addCut(program);
    addSplit(program);
    addCat(program);
    addMerge(program);
    addConvert(program);
    addRepair(program);
    addExport(program);
    addImport(program);
    addRecord(program);
    addReport(program);
    addView(program);
    addKinds(program);
    return program.run(std::move(arguments), "info");
}

} // namespace qvx
