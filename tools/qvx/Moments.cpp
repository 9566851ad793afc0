#include "Moments.h"

#include <limits>

namespace qvx {

namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

} // namespace

std::optional<Moment> Moment::of(std::string_view text) {
    Moment moment;
    const bool isSigned = text.starts_with('+') || text.starts_with('-');
    if (isSigned)
        moment.m_from = text[0] == '-' ? From::Last : From::First;
    const auto distance = Quorvex::TimeLength::of(text.substr(isSigned ? 1 : 0));
    if (!distance)
        return std::nullopt;
    moment.m_distance = *distance;
    if (!isSigned && !distance->isTicks())
        moment.m_from = From::First;
    return moment;
}

std::uint64_t Moment::tickIn(const Quorvex::TraceSpan& span) const {
    const std::uint64_t distance = m_distance.ticks(span.frequency);
    switch (m_from) {
    case From::First:
        return distance < kMost - span.first ? span.first + distance : kMost;
    case From::Last:
        return distance < span.last ? span.last - distance : 0;
    case From::Zero:
        break;
    }
    return distance;
}

} // namespace qvx
