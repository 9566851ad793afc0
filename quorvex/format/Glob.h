#pragma once

#include <cstddef>
#include <string_view>

namespace Quorvex {

/// Whether a text is as a pattern says: * stands for any characters, ? for one, and others for themselves.
constexpr bool matches(std::string_view pattern, std::string_view text) {
    // Where a * did not take enough, it takes one character more; only the last one needs another try.
    std::size_t at = 0, star = std::string_view::npos, behindStar = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (at < pattern.size() && pattern[at] == '*') {
            star = at++;
            behindStar = i;
        } else if (at < pattern.size() && (pattern[at] == '?' || pattern[at] == text[i])) {
            ++at;
            ++i;
        } else if (star != std::string_view::npos) {
            at = star + 1;
            i = ++behindStar;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

} // namespace Quorvex
