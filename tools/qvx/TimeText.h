#pragma once

#include "quorvex/analysis/TimeLength.h"
#include "quorvex/analysis/TraceSpan.h"

#include <cstdint>
#include <optional>
#include <string>

namespace qvx {

class Verb;

/// How moments are shown.
enum class TimeForm : std::uint8_t { Seconds, Nanoseconds, Ticks, Delta };

/// Adds --time to a verb.
void addTimeOption(Verb& verb, std::optional<TimeForm>& form);

/// Appends a number in decimal, right in a column of that width, at most 20.
void appendNumber(std::string& to, std::uint64_t number, std::size_t width = 0);

/// A length of time in seconds, with all its nanoseconds: "0.005110870".
std::string secondsText(std::uint64_t nanoseconds);
void appendSeconds(std::string& to, std::uint64_t nanoseconds); ///< the same, appended

using Quorvex::durationText;

/// Shows moments, from the start of traces where they are not ticks. Where the clock is not known, ticks stand for what
/// would be seconds or nanoseconds.
class TimeText {
public:
    explicit TimeText(TimeForm form) : m_form(form) {}

    /// What the start and the clock are, as far as they are known.
    void tell(const Quorvex::TraceSpan& span) { m_span = span; }
    /// Appends a moment, right in its column; of unknown ticks, a dash.
    void append(std::string& to, std::uint64_t tick);
    /// The same, put there. The end of the text; kRoom characters may change.
    char* put(char* to, std::uint64_t tick);
    static constexpr std::size_t kRoom = 32; ///< see put()
    /// A moment beside a line: it is no line from which the next one counts.
    std::string textOf(std::uint64_t tick) const;
    /// Puts a length of time in ticks, in the unit that fits. The end of the text; kRoom characters may change.
    char* putDuration(char* to, std::uint64_t ticks) const;

private:
    /// Puts the time from one tick to another. The end of the text.
    char* putDistance(char* to, std::uint64_t from, std::uint64_t tick) const;

    TimeForm m_form;
    Quorvex::TraceSpan m_span;
    std::uint64_t m_last = Quorvex::kUnknown64;   ///< the moment before
    std::uint64_t m_second = Quorvex::kUnknown64; ///< the last one that seconds were put of,
    char m_secondText[10] = {};                   ///< as it stands in its column
};

} // namespace qvx
