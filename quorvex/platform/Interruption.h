#pragma once

#include "quorvex/platform/Export.h"

namespace Quorvex::platform {

/// How many instances of Uninterrupted the calling thread has. Where there are some, what is called is no signal
/// handler: it is called by the library itself, which may hold locks. Plain memory.
QUORVEX_API unsigned uninterruptedHere();

} // namespace Quorvex::platform
