#pragma once

#include "quorvex/analysis/TimeLength.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

/// What a rule is about.
enum class RuleAbout : std::uint8_t { Function, Depth, Event, Message, Counter, ThreadGap, CoreGap, Damage, Loss };

/// What must hold of it.
enum class RuleDemand : std::uint8_t {
    None,
    Times,  ///< it happens from `least` to `most` times
    Length, ///< it takes from `shortest` to `longest`
    Value,  ///< it is from `least` to `most`
    Before, ///< it happens before each of the others
    After,  ///< and behind them
};

enum class RuleNumberSort : std::uint8_t { Unsigned, Signed, Real };

/// A number in one of three forms.
struct RuleNumber {
    RuleNumberSort sort = RuleNumberSort::Unsigned;
    std::uint64_t bits = 0;

    /// A number as one of a later sort; as the nearest one.
    RuleNumber as(RuleNumberSort other) const;
    /// Both are of the same sort.
    bool operator<=(const RuleNumber& other) const;
    std::string text() const;
};

/// A rule as it is told.
struct TraceRule {
    std::size_t line = 0; ///< of the text, from 1
    std::string text{};
    RuleAbout about{};
    RuleDemand demand = RuleDemand::None;
    std::string name{}, other{}; ///< patterns
    std::optional<TimeLength> shortest{}, longest{};
    std::optional<RuleNumber> least{}, most{};
};

/// The rules in a text, by the grammar that TraceRules tells. Throws a RuleFault.
std::vector<TraceRule> parseRules(std::string_view text);

} // namespace Quorvex
