#include "TimeText.h"

#include "Arguments.h"
#include "quorvex/analysis/TimeBase.h"

#include <charconv>
#include <iterator>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::size_t kWidth = 20; ///< of the column

} // namespace

void appendNumber(std::string& to, std::uint64_t number, std::size_t width) {
    char digits[20];
    const auto size = static_cast<std::size_t>(std::to_chars(digits, std::end(digits), number).ptr - digits);
    if (size < width)
        to.append(width - size, ' ');
    to.append(digits, size);
}

void appendSeconds(std::string& to, std::uint64_t nanoseconds) {
    constexpr std::uint64_t kNano = 1'000'000'000;
    constexpr int kDigits = 9;
    appendNumber(to, nanoseconds / kNano);
    char digits[1 + kDigits] = {'.'};
    for (std::uint64_t i = kDigits, part = nanoseconds % kNano; i > 0; part /= 10)
        digits[i--] = static_cast<char>('0' + part % 10);
    to.append(digits, sizeof digits);
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
    const std::size_t begin = to.size();
    if (tick == kUnknown64)
        to += '-';
    else if (m_form == TimeForm::Ticks)
        appendNumber(to, tick);
    else
        appendDistance(to, m_form != TimeForm::Delta ? m_span.first : m_last == kUnknown64 ? tick : m_last, tick);
    if (tick != kUnknown64)
        m_last = tick;
    if (const std::size_t size = to.size() - begin; size < kWidth)
        to.insert(begin, kWidth - size, ' ');
}

std::string TimeText::textOf(std::uint64_t tick) const {
    std::string text;
    if (m_form == TimeForm::Ticks)
        appendNumber(text, tick);
    else
        appendDistance(text, m_span.first, tick);
    return text;
}

void TimeText::appendDistance(std::string& to, std::uint64_t from, std::uint64_t tick) const {
    const bool isBefore = tick < from;
    const std::uint64_t units = TimeBase::nanosecondsOf(isBefore ? from - tick : tick - from, m_span.frequency);
    const char* sign = isBefore ? "-" : "";
    to += sign;
    if (m_span.frequency == 0 || m_form == TimeForm::Nanoseconds) {
        appendNumber(to, units);
        return;
    }
    appendSeconds(to, units);
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
