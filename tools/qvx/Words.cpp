#include "Words.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace qvx {

namespace {

/// How many characters must be put in, left out, changed or swapped with the next to make one word of the other.
std::size_t distance(std::string_view one, std::string_view other) {
    std::vector<std::size_t> before, row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::vector<std::size_t> next(row.size(), i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            next[j + 1] = std::min({next[j] + 1, row[j + 1] + 1, row[j] + (one[i] != other[j])});
            if (i > 0 && j > 0 && one[i] == other[j - 1] && one[i - 1] == other[j])
                next[j + 1] = std::min(next[j + 1], before[j - 1] + 1);
        }
        before = std::exchange(row, std::move(next));
    }
    return row.back();
}

} // namespace

std::string didYouMean(std::string_view word, const std::vector<std::string>& known) {
    const std::string* nearest = nullptr;
    const std::size_t dashes = std::min(word.find_first_not_of('-'), word.size());
    std::size_t least = (word.size() - dashes) / 2 + 1;
    for (const std::string& candidate : known) {
        const std::size_t away = candidate.starts_with(word) && !word.empty() ? 1 : distance(word, candidate);
        if (away < least) {
            least = away;
            nearest = &candidate;
        }
    }
    return nearest ? "; did you mean '" + *nearest + "'?" : "";
}

} // namespace qvx
