#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/FileIdentity.h"

#include <cstdint>

namespace Quorvex::platform {

/// A file that is written at positions, with no buffer in between. Once made it can be closed and opened again: by that
/// a program can have more such files than it may have open. Not synchronised; all operations may be called in a signal
/// handler. They return the system's error number (errno), 0 when all is well.
class QUORVEX_API RandomAccessFile {
public:
    RandomAccessFile() = default;
    RandomAccessFile(const RandomAccessFile&) = delete;
    RandomAccessFile& operator=(const RandomAccessFile&) = delete;
    ~RandomAccessFile() { close(); }

    /// Makes a file; EEXIST where anything has that name, a link included.
    int create(const char* path);
    /// Opens the file that create() made; ENOENT when it is no longer there, or another one has its name.
    int reopen(const char* path);
    /// Whether it is open, and its descriptor has not been closed or taken for another file by others in the process.
    bool isOpen() const;
    /// All `count` bytes, or an error after the first `written` of them.
    int write(const char* bytes, unsigned count, std::uint64_t position, unsigned& written);
    void close(); ///< without a report of failure

private:
    static bool identify(std::intptr_t handle, FileIdentity& identity);

    static constexpr std::intptr_t kNone = -1;
    std::intptr_t m_handle = kNone;
    FileIdentity m_identity;
};

} // namespace Quorvex::platform
