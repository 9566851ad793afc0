#include "quorvex/platform/RunningThread.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <cerrno>
#include <csignal>
#include <sys/types.h>
#include <unistd.h>
#endif

namespace Quorvex::platform {

bool isThreadRunning([[maybe_unused]] unsigned id) {
#if defined(_WIN32)
    const HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, id);
    if (!thread)
        return GetLastError() == ERROR_ACCESS_DENIED;
    const bool isRunning = WaitForSingleObject(thread, 0) == WAIT_TIMEOUT;
    CloseHandle(thread);
    return isRunning;
#elif defined(__linux__)
    // The system takes the number of any thread there. Signal 0 is none.
    return kill(static_cast<pid_t>(id), 0) == 0 || errno != ESRCH;
#else
    return true;
#endif
}

unsigned currentProcessId() {
#if defined(_WIN32)
    return GetCurrentProcessId();
#else
    return static_cast<unsigned>(getpid());
#endif
}

} // namespace Quorvex::platform
