#include "TimeText.h"

#include "Arguments.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Digits.h"

#include <cstring>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::size_t kWidth = kMostDigits; ///< of the column

/// Characters that seconds may take, and those that may change behind them.
constexpr std::size_t kMostSeconds = kMostDigits + 10;

/// Appends a text that stands behind room for kMostDigits characters, right in a column of at most so many.
void appendColumn(std::string& to, char* begin, const char* end, std::size_t width) {
    const auto size = static_cast<std::size_t>(end - begin);
    const std::size_t pad = size < width ? width - size : 0;
    std::memset(begin - kMostDigits, ' ', kMostDigits);
    to.append(begin - pad, size + pad);
}

/// Puts seconds with all their nanoseconds. The end of the text.
char* putSeconds(char* to, std::uint64_t nanoseconds) {
    constexpr std::uint64_t kNano = 1'000'000'000;
    to = putDecimal(to, nanoseconds / kNano);
    const auto part = static_cast<std::uint32_t>(nanoseconds % kNano);
    *to++ = '.';
    *to++ = static_cast<char>('0' + part / kEightDigits);
    storeLittleEndian(to, decimalDigits(part % kEightDigits) + kZeros);
    return to + 8;
}

} // namespace

void appendNumber(std::string& to, std::uint64_t number, std::size_t width) {
    char text[2 * kMostDigits];
    char* const begin = text + kMostDigits;
    appendColumn(to, begin, putDecimal(begin, number), width);
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
    char text[kMostDigits + 1 + kMostSeconds];
    char* const begin = text + kMostDigits;
    char* end = begin;
    if (tick == kUnknown64)
        *end++ = '-';
    else if (m_form == TimeForm::Ticks)
        end = putDecimal(begin, tick);
    else
        end = putDistance(begin, m_form != TimeForm::Delta ? m_span.first : m_last == kUnknown64 ? tick : m_last, tick);
    if (tick != kUnknown64)
        m_last = tick;
    appendColumn(to, begin, end, kWidth);
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

void TimeText::appendDuration(std::string& to, std::uint64_t ticks) const {
    if (m_span.frequency != 0) {
        Quorvex::appendDuration(to, TimeBase::nanosecondsOf(ticks, m_span.frequency));
        return;
    }
    appendNumber(to, ticks);
    to += " ticks";
}

} // namespace qvx
