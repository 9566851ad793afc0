#pragma once

#include "quorvex/platform/Export.h"

namespace Quorvex::platform {

/// Whether a thread of that number (currentThreadId) runs on this system, of whatever process; true where that cannot
/// be told. The number may be that of another thread by now.
QUORVEX_API bool isThreadRunning(unsigned id);

} // namespace Quorvex::platform
