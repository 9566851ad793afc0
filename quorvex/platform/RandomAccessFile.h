#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/FileIdentity.h"

#include <cstddef>
#include <cstdint>

namespace Quorvex::platform {

/// A file that is written at positions, with no buffer in between. Once made it can be closed and opened again: by that
/// a program can have more such files than it may have open. Not synchronised; all operations may be called in a signal
/// handler. They return the system's error number (errno), 0 when all is well. In a thread that holds signals off none
/// is left behind by a write that is refused.
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
    int truncate(std::uint64_t size); ///< makes it that long
    /// Gives the place of bytes back to the disk; they read as zeros from then on. Not everywhere possible.
    int release(std::uint64_t position, std::uint64_t size);
    /// The first `size` bytes of a file that create() has just made and that is that long, as memory that is shared
    /// with it: what is stored there is in the file, whatever becomes of the process. It lives on when the file is
    /// closed. Null with the error.
    void* map(std::size_t size, int& error);
    static void unmap(void* memory, std::size_t size); ///< gives back what map() gave
    void close();                                      ///< without a report of failure

private:
    static bool identify(std::intptr_t handle, FileIdentity& identity);
    int take(std::intptr_t handle);

    static constexpr std::intptr_t kNone = -1;
    std::intptr_t m_handle = kNone;
    FileIdentity m_identity; ///< of the file that create() made
};

} // namespace Quorvex::platform
