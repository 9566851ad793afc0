#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Quorvex {

class CTraceNames;
class Merged;
class TraceFile;

/// What is wrong with a text for rules.
struct RuleFault {
    std::size_t line; ///< from 1
    std::string text; ///< in a sentence without a full stop
};

/// A number that broke a rule: a count, a value of a counter, or a time in ns, in ticks where no clock is known.
using RuleValue = std::variant<std::monostate, std::uint64_t, std::int64_t, double>;

/// One time that a rule is broken.
struct RuleFinding {
    std::uint32_t file = ~0U;               ///< number of the trace; all ones where it is about all of them
    std::uint64_t offset = kUnknown64;      ///< of the packet; kUnknown64 where there is none
    std::uint64_t tick = kUnknown64;        ///< its tick; likewise
    std::uint64_t nanoseconds = kUnknown64; ///< the same since the first tick of all traces; likewise
    std::uint32_t thread = ~0U;             ///< all ones where it is not known
    std::uint32_t core = ~0U;               ///< likewise
    RuleValue value{};                      ///< what broke the rule, where that is a number
    std::string text{};                     ///< what is there, with the value that broke the rule
};

/// What became of a rule.
struct RuleResult {
    std::string source;                ///< the text that it stands in
    std::size_t line = 0;              ///< there, from 1
    std::string rule;                  ///< as it stands there
    std::uint64_t checked = 0;         ///< how many things it was held against: calls, events, values, gaps, traces
    std::uint64_t broken = 0;          ///< how many of them broke it, or more of them
    std::vector<RuleFinding> findings; ///< the first of these
};

/// Rules that traces must keep, told in a text: one a line, in words with blanks between them. `#` begins a comment.
///
///     function "parse*" never longer than 5ms      or: never shorter than
///     function "main" called at least 1 times      or: at most N times, never
///     depth never above 50                         functions that are entered in each other in a thread
///     event "request" before event "answer"        there is such a request before every answer,
///     event "answer" after event "request" within 10ms    and such an answer after every request; `within` is optional
///     event "reset" at most 1 times                or: at least N times, never
///     message "error*" never                       the same of messages, by their text
///     counter "queue" between 0 and 100            or: never above N, never below N
///     thread gap never longer than 10ms            time between packets of the same thread; or: core gap
///     no gap                                       no damage, and no overflow that the target has told
///     no loss                                      likewise, and each trace is there with its end
///
/// A name stands in double quotes, with `\` before a quote or another `\` in it; `*` stands for any characters, `?` for
/// one. What has no name is called by its identifier, as 0x00000007. Times are told in s, ms, us or ns, or without a
/// unit in ticks. Counters are compared as what their values are (CounterSort); those that tell no eight bytes, as what
/// the bounds are: with a sign if one is negative, and as floating point if one has a point.
///
/// A call ends as it does for CallTimes. A rule about time is broken in a trace that does not tell its clock, unless it
/// is told in ticks. Used by one thread at a time. Memory does not grow with the traces, but with names and threads.
class QUORVEX_API TraceRules {
public:
    /// Keeps so many findings of each rule.
    explicit TraceRules(std::uint64_t mostFindings = 10);
    TraceRules(const TraceRules&) = delete;
    TraceRules& operator=(const TraceRules&) = delete;
    ~TraceRules();

    /// Adds the rules in a text, of which `source` is the name. If there is a fault, none of them is added.
    std::optional<RuleFault> add(std::string_view text, const std::string& source);
    /// How many there are.
    std::size_t size() const;

    /// Whether there are rules about the order of what stands in several traces. These must be read as one then.
    bool needOrder() const;
    /// Takes the names that a trace gives, to know them where other traces, or the same one before, use them. To be
    /// done, if at all, before the first trace is read. The trace, which has its own number here and below, is read to
    /// its end and must be opened once more for the following.
    void learn(TraceFile& trace, std::uint32_t file);
    /// Reads a trace and holds the rules against it. Throws what TraceFile throws.
    void read(TraceFile& trace, std::uint32_t file);
    /// Reads several traces as one; they are numbered as they are there.
    void read(Merged& traces);

    /// The names that the traces have given so far, each by its number.
    const CTraceNames& names() const;
    /// What became of all rules, in their order. No trace can be read behind that.
    std::vector<RuleResult> results();

private:
    struct State;

    platform::Owned<State> m_state;
};

} // namespace Quorvex
