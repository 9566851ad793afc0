#pragma once

#include "quorvex/analysis/CallTree.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/export/ViewerWriter.h"
#include "quorvex/format/Digits.h"
#include "quorvex/platform/Owned.h"

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

/// Folded stacks, which flame graphs are drawn from: a line for each path of calls with time of its own, as
/// `main;parse;read 1234`: nanoseconds in read itself, or ticks where no clock is told. In names a ; becomes a :, and
/// what cannot be shown `\xNN`.
class QUORVEX_API FoldedStacks {
public:
    /// The lines go to `add`, one by one. `nameOf(path)` is asked once for each function, `threadOf(path)` for each
    /// path that nothing has called.
    template <class Add, class NameOf, class ThreadOf>
    static void write(const std::vector<CallPath>& paths, NameOf nameOf, ThreadOf threadOf, Add add) {
        std::vector<std::size_t> ends; // of the names on the stack, as they stand in the line
        Directory<std::uint64_t, std::string> texts;
        std::string line;
        for (const CallPath& path : paths) {
            ends.resize(path.depth);
            line.resize(ends.empty() ? 0 : ends.back());
            if (ends.empty())
                line = textOf(threadOf(path));
            if (!line.empty())
                line += ';';
            line += texts.findOrMake(path.function, [&] { return textOf(nameOf(path)); });
            ends.push_back(line.size());
            if (path.self == 0)
                continue;
            char self[kMostDigits];
            line += ' ';
            line.append(self, putDecimal(self, path.self)) += '\n';
            add(std::string_view(line));
        }
    }
    /// The name of a path's function.
    static std::string nameOf(const CallPath& path, const CTraceNames& names) {
        return path.function == CallTree::kOther ? "(other paths)" : names.nameOrId(TextSort::Function, path.function);
    }

private:
    static std::string textOf(std::string_view name);
};

/// Writes the calls of a trace as folded stacks, those of all threads together. The format has nothing else, and knows
/// no moments: memory grows with the paths, of which CallTree tells.
class QUORVEX_API CFoldedWriter : public CViewerWriter {
public:
    explicit CFoldedWriter(std::ostream& out, ViewerOptions options = {})
        : CViewerWriter(out, {TextSort::Function}, std::move(options)) {}
    ~CFoldedWriter() override;

protected:
    bool show(const CPacket& packet, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    bool writeFile() override;

private:
    CallTree m_tree;
    CTraceNames m_names;
    std::map<unsigned, CallTree::Packets> m_traces;                  ///< by processes
    std::pair<const unsigned, CallTree::Packets>* m_trace = nullptr; ///< of the last packet
};

} // namespace Quorvex
