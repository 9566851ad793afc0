#pragma once

/// What the sources of this folder share that work on files.

#include "quorvex/platform/FileIdentity.h"

#if defined(_WIN32)
#include "quorvex/platform/HResult.h"

#include <fileapi.h>
#include <handleapi.h>
#include <system_error>
#else
#include <sys/stat.h>
#endif

namespace Quorvex::platform {

#if defined(_WIN32)

/// Why the last call of the system has failed, as an error number (errno).
inline int lastError() {
    return std::error_code(static_cast<int>(GetLastError()), std::system_category()).default_error_condition().value();
}

inline FileIdentity identityOf(const BY_HANDLE_FILE_INFORMATION& file) {
    return {file.dwVolumeSerialNumber, std::uint64_t{file.nFileIndexHigh} << 32 | file.nFileIndexLow};
}

#else

/// Of a file by its status.
inline FileIdentity identityOf(const struct stat& file) {
    return {static_cast<std::uint64_t>(file.st_dev), static_cast<std::uint64_t>(file.st_ino)};
}

#endif

} // namespace Quorvex::platform
