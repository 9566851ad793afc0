#pragma once

#include "Verbs.h"

#include <string>
#include <vector>

namespace qvx {

class Target;

/// Makes one trace of several, in the order of time, as the verb does it that the user asks: paged and absolute. Says
/// what there is to say of the traces. Throws Failure.
ExitCode merge(const std::vector<std::string>& files, Target& target);

} // namespace qvx
