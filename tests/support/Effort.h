#pragma once

#include "quorvex/platform/System.h"

namespace Quorvex::test {

#if defined(NDEBUG)
constexpr bool kChecked = false;
#else
constexpr bool kChecked = true; ///< built for debugging or with sanitizers, where each step takes its time
#endif

/// How often to do what is tried many times.
constexpr unsigned effort(unsigned usual, unsigned inCheckedBuilds) {
    return kChecked ? inCheckedBuilds : usual;
}

/// Whether what takes long and rarely finds anything is asked for.
inline bool isThorough() {
    return !platform::environment("QUORVEX_THOROUGH").empty();
}

} // namespace Quorvex::test
