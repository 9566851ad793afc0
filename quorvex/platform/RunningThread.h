#pragma once

#include "quorvex/platform/Export.h"

namespace Quorvex::platform {

/// Whether a thread of that number (currentThreadId) runs on this system, of whatever process; true where that cannot
/// be told. The number may be that of another thread by now.
QUORVEX_API bool isThreadRunning(unsigned id);

/// The number by which the system tells the process from all others that run now.
QUORVEX_API unsigned currentProcessId();

} // namespace Quorvex::platform
