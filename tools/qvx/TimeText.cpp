#include "TimeText.h"

#include "Arguments.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Digits.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::size_t kWidth = kMostDigits; ///< of the column
constexpr std::uint64_t kNano = 1'000'000'000;

/// Characters that seconds may take, and those that may change behind them.
constexpr std::size_t kMostSeconds = kMostDigits + 10;

/// Puts a text right in a column of that width.
char* putColumn(char* to, const char* begin, const char* end, std::size_t width) {
    const auto size = static_cast<std::size_t>(end - begin);
    for (std::size_t pad = size; pad < width; ++pad)
        *to++ = ' ';
    return std::copy(begin, end, to);
}

/// Puts what is behind whole seconds, of so many nanoseconds.
char* putFraction(char* to, std::uint32_t nanoseconds) {
    *to++ = '.';
    *to++ = static_cast<char>('0' + nanoseconds / kEightDigits);
    storeLittleEndian(to, decimalDigits(static_cast<std::uint32_t>(nanoseconds % kEightDigits)) + kZeros);
    return to + 8;
}

/// Puts seconds with all their nanoseconds. The end of the text.
char* putSeconds(char* to, std::uint64_t nanoseconds) {
    return putFraction(putDecimal(to, nanoseconds / kNano), static_cast<std::uint32_t>(nanoseconds % kNano));
}

} // namespace

void appendNumber(std::string& to, std::uint64_t number, std::size_t width) {
    char text[kMostDigits], column[2 * kMostDigits];
    to.append(column, putColumn(column, text, putDecimal(text, number), width));
}

void appendSeconds(std::string& to, std::uint64_t nanoseconds) {
    char text[kMostSeconds];
    to.append(text, putSeconds(text, nanoseconds));
}

std::string secondsText(std::uint64_t nanoseconds) {
    std::string text;
    appendSeconds(text, nanoseconds);
    return text;
}

void addTimeOption(Verb& verb, std::optional<TimeForm>& form) {
    verb.choice<std::optional<TimeForm>>(
        "--time", form,
        {{"s", TimeForm::Seconds},
         {"ns", TimeForm::Nanoseconds},
         {"ticks", TimeForm::Ticks},
         {"delta", TimeForm::Delta}},
        "(text) s (default) or ns from the start, ticks as they are, delta: from line to line", "FORM");
}

void TimeText::append(std::string& to, std::uint64_t tick) {
    char text[kRoom];
    to.append(text, put(text, tick));
}

char* TimeText::put(char* to, std::uint64_t tick) {
    constexpr std::uint64_t kMostInColumn = 9'999'999'999; // seconds
    if (m_form == TimeForm::Seconds && m_span.frequency != 0 && tick >= m_span.first && tick != kUnknown64) {
        const std::uint64_t time = TimeBase::nanosecondsOf(tick - m_span.first, m_span.frequency);
        const std::uint64_t second = time / kNano;
        if (second <= kMostInColumn) {
            if (second != m_second) {
                std::string text;
                appendNumber(text, m_second = second, sizeof m_secondText);
                text.copy(m_secondText, sizeof m_secondText);
            }
            std::memcpy(to, m_secondText, sizeof m_secondText);
            return putFraction(to + sizeof m_secondText, static_cast<std::uint32_t>(time - second * kNano));
        }
    }
    char begin[1 + kMostSeconds];
    char* end = begin;
    if (tick == kUnknown64)
        *end++ = '-';
    else if (m_form == TimeForm::Ticks)
        end = putDecimal(begin, tick);
    else
        end = putDistance(begin, m_form != TimeForm::Delta ? m_span.first : m_last == kUnknown64 ? tick : m_last, tick);
    if (tick != kUnknown64)
        m_last = tick;
    return putColumn(to, begin, end, kWidth);
}

std::string TimeText::textOf(std::uint64_t tick) const {
    char text[1 + kMostSeconds];
    return {text, m_form == TimeForm::Ticks ? putDecimal(text, tick) : putDistance(text, m_span.first, tick)};
}

char* TimeText::putDistance(char* to, std::uint64_t from, std::uint64_t tick) const {
    const bool isBefore = tick < from;
    const std::uint64_t units = TimeBase::nanosecondsOf(isBefore ? from - tick : tick - from, m_span.frequency);
    if (isBefore)
        *to++ = '-';
    const bool isWhole = m_span.frequency == 0 || m_form == TimeForm::Nanoseconds;
    return isWhole ? putDecimal(to, units) : putSeconds(to, units);
}

char* TimeText::putDuration(char* to, std::uint64_t ticks) const {
    if (m_span.frequency != 0)
        return Quorvex::putDuration(to, TimeBase::nanosecondsOf(ticks, m_span.frequency));
    constexpr std::string_view kTicks = " ticks";
    to = putDecimal(to, ticks);
    return to + kTicks.copy(to, kTicks.size());
}

} // namespace qvx
