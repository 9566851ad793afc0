#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// What to say of a word that is not known: "; did you mean 'stats'?" with the nearest of those that are, or nothing
/// where none is near.
std::string didYouMean(std::string_view word, const std::vector<std::string>& known);

} // namespace qvx
