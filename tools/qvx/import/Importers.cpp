#include "Importers.h"

#include <algorithm>

namespace qvx {

namespace {

std::string_view firstLine(std::string_view head) {
    return head.substr(0, head.find('\n'));
}

bool isJson(std::string_view head) {
    if (head.starts_with("\xEF\xBB\xBF"))
        head.remove_prefix(3);
    const std::size_t at = head.find_first_not_of(" \t\r\n");
    return at != std::string_view::npos && (head[at] == '{' || head[at] == '[');
}

bool isValueChanges(std::string_view head) {
    const std::size_t at = head.find_first_not_of(" \t\r\n");
    return at != std::string_view::npos && head[at] == '$';
}

/// A line ends in a number behind a blank.
bool isFolded(std::string_view head) {
    std::string_view line = firstLine(head);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    const std::size_t digits = line.find_last_not_of("0123456789");
    return digits != std::string_view::npos && digits > 0 && digits + 1 < line.size() && line[digits] == ' ';
}

bool isCtf(std::string_view head) {
    return head.starts_with("/* CTF ");
}

bool isAny(std::string_view) {
    return true;
}

} // namespace

const std::vector<Importer>& importers() {
    static const std::vector<Importer> kImporters{
        {"chrome", "Chrome trace events (JSON)", isJson, readChromeJson},
        {"vcd", "value change dump", isValueChanges, readValueChanges},
        {"folded", "folded stacks", isFolded, readFoldedStacks},
        {"ctf", "Common Trace Format", isCtf, nullptr, readCtf},
        {"perf", "what perf script prints", isAny, readPerfScript},
    };
    return kImporters;
}

} // namespace qvx
