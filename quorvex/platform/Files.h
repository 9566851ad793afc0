#pragma once

/// What the sources of this folder share that work on files.

#include "quorvex/platform/FileIdentity.h"

#if defined(_WIN32)
#include "quorvex/platform/HResult.h"

#include <fileapi.h>
#include <handleapi.h>
#include <system_error>
#else
#include <cerrno>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#endif

namespace Quorvex::platform {

#if defined(_WIN32)

/// Why the last call of the system has failed, as an error number (errno).
inline int lastError() {
    return std::error_code(static_cast<int>(GetLastError()), std::system_category()).default_error_condition().value();
}

inline HANDLE asHandle(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

inline void closeNative(std::intptr_t handle) {
    CloseHandle(asHandle(handle));
}

inline FileIdentity identityOf(const BY_HANDLE_FILE_INFORMATION& file) {
    return {file.dwVolumeSerialNumber, std::uint64_t{file.nFileIndexHigh} << 32 | file.nFileIndexLow};
}

#else

/// Why the last call of the system has failed.
inline int lastError() {
    return errno;
}

/// Closes what the system has opened.
inline void closeNative(std::intptr_t handle) {
    ::close(static_cast<int>(handle));
}

/// The signal that a refused write raises in its thread and that would end the program. Where the thread holds signals
/// off it is taken back, unless it was waiting before.
class SignalOfWrite {
public:
    explicit SignalOfWrite(int signal) {
        sigemptyset(&m_signal);
        sigaddset(&m_signal, signal);
        sigset_t waiting;
        sigpending(&waiting);
        m_waited = sigismember(&waiting, signal) == 1;
    }

    /// For the error of the write, if that is the one that comes with the signal; the error.
    int takenBack(int error, int errorOfSignal) const {
#if defined(__linux__)
        const timespec now{};
        if (error == errorOfSignal && !m_waited)
            sigtimedwait(&m_signal, nullptr, &now);
#else
        static_cast<void>(errorOfSignal);
#endif
        return error;
    }

private:
    sigset_t m_signal;
    bool m_waited;
};

/// Of a file by its status.
inline FileIdentity identityOf(const struct stat& file) {
    return {static_cast<std::uint64_t>(file.st_dev), static_cast<std::uint64_t>(file.st_ino)};
}

#endif

} // namespace Quorvex::platform
