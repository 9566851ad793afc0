/// Folded stacks: "outer;inner;innermost COUNT" a line, as flame graphs are made of. Times are not known, so stacks are
/// laid side by side in their order, as long as their counts.

#include "../Verbs.h"
#include "ImportedTrace.h"
#include "Importers.h"

#include <algorithm>
#include <charconv>

namespace qvx {

void readFoldedStacks(std::istream& in, const std::string& name, ImportedTrace& trace) {
    trace.message(0, "Made of folded stacks: a tick is what they count, and calls side by side may have been one after "
                     "the other in any order.");
    const ImportedTrace::Thread thread = trace.thread("1", "1");
    std::vector<std::string> open;
    std::uint64_t time = 0;
    bool isStack = false;
    for (std::string line; std::getline(in, line);) {
        if (line.ends_with('\r'))
            line.pop_back();
        if (line.empty())
            continue;
        const std::size_t blank = line.rfind(' ');
        std::uint64_t count = 0;
        const char* const end = line.data() + line.size();
        const auto [at, error] = blank == std::string::npos
                                     ? std::from_chars_result{nullptr, std::errc::invalid_argument}
                                     : std::from_chars(line.data() + blank + 1, end, count);
        if (blank == 0 || error != std::errc() || at != end || count > UINT64_MAX - 1 - time) {
            trace.lose("lines that are no stacks");
            continue;
        }
        isStack = true;
        std::vector<std::string> stack;
        for (std::size_t from = 0; from <= blank;) {
            const std::size_t to = std::min(line.find(';', from), blank);
            stack.push_back(line.substr(from, to - from));
            from = to + 1;
        }
        std::size_t same = 0;
        while (same < open.size() && same < stack.size() && open[same] == stack[same])
            ++same;
        for (; open.size() > same; open.pop_back())
            trace.leave(thread, time);
        for (; open.size() < stack.size(); open.push_back(stack[open.size()]))
            trace.enter(thread, time, stack[open.size()]);
        time += count;
    }
    if (!isStack)
        throw Failure(name, "has no folded stacks");
    for (; !open.empty(); open.pop_back())
        trace.leave(thread, time);
}

} // namespace qvx
