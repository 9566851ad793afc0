#include "TimeText.h"

#include "Arguments.h"
#include "quorvex/analysis/TimeBase.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::uint64_t kNano = 1'000'000'000;
constexpr std::size_t kWidth = 20; ///< of the column

} // namespace

void addTimeOption(Verb& verb, TimeForm& form) {
    verb.choice("--time", form,
                {{"s", TimeForm::Seconds},
                 {"ns", TimeForm::Nanoseconds},
                 {"ticks", TimeForm::Ticks},
                 {"delta", TimeForm::Delta}},
                "s (default) or ns from the start, ticks as they are, delta: from line to line", "FORM");
}

std::string durationText(std::uint64_t nanoseconds) {
    constexpr std::pair<std::uint64_t, const char*> kUnits[] = {{kNano, "s"}, {1'000'000, "ms"}, {1'000, "us"}};
    for (const auto& [unit, name] : kUnits) {
        if (nanoseconds >= unit)
            return fmt::format("{}.{:03} {}", nanoseconds / unit, nanoseconds % unit / (unit / 1000), name);
    }
    return fmt::format("{} ns", nanoseconds);
}

void TimeText::append(std::string& to, std::uint64_t tick) {
    const std::size_t begin = to.size();
    if (tick == kUnknown64)
        to += '-';
    else if (m_form == TimeForm::Ticks)
        fmt::format_to(std::back_inserter(to), "{}", tick);
    else
        appendDistance(to, m_form != TimeForm::Delta ? m_span.first : m_last == kUnknown64 ? tick : m_last, tick);
    if (tick != kUnknown64)
        m_last = tick;
    if (const std::size_t size = to.size() - begin; size < kWidth)
        to.insert(begin, kWidth - size, ' ');
}

void TimeText::appendDistance(std::string& to, std::uint64_t from, std::uint64_t tick) const {
    const bool isBefore = tick < from;
    const std::uint64_t units = TimeBase::unitsOf(isBefore ? from - tick : tick - from, m_span.frequency, kNano);
    const char* sign = isBefore ? "-" : "";
    if (m_span.frequency == 0 || m_form == TimeForm::Nanoseconds)
        fmt::format_to(std::back_inserter(to), "{}{}", sign, units);
    else
        fmt::format_to(std::back_inserter(to), "{}{}.{:09}", sign, units / kNano, units % kNano);
}

void TimeText::appendDuration(std::string& to, std::uint64_t ticks) const {
    if (m_span.frequency == 0)
        fmt::format_to(std::back_inserter(to), "{} ticks", ticks);
    else
        to += durationText(TimeBase::unitsOf(ticks, m_span.frequency, kNano));
}

} // namespace qvx
