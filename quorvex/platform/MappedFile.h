#pragma once

#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>

namespace Quorvex::platform {

/// A regular file that is open for reading, and its bytes as memory. Where several threads use it, none may open or
/// close it meanwhile.
class QUORVEX_API MappedFile {
public:
    MappedFile() = default;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile() { close(); }

    /// Opens the file and maps all that it holds now. 0, or the system's error number (errno): EISDIR for a directory,
    /// ENOTSUP for what else is no regular file, which is not opened at all; ENODATA for an empty file; EFBIG for one
    /// that has no room among the addresses of the process.
    int open(const char* path);
    void close();                                       ///< does nothing where none is open
    bool isOpen() const { return m_memory != nullptr; } ///< a file is mapped

    /// The bytes of the file, as many as it had when it was opened. Where others make it shorter, looking at what is
    /// gone raises a signal that ends the program (SIGBUS); on systems that do not let a mapped file be cut, they
    /// cannot.
    const char* memory() const { return m_memory; }
    std::size_t mapped() const { return m_size; } ///< how many that are
    int size(std::uint64_t& bytes) const;         ///< how long the file is now; 0 or an error number
    /// Takes up to `count` bytes at a position from the file and not from the memory, which fails where looking would
    /// end the program. `got` is 0 at the end of the file. 0, or the system's error number.
    int read(char* to, unsigned count, std::uint64_t position, unsigned& got) const;
    /// What stands there is not needed soon: the process need not keep it in its memory. It can be looked at again.
    void release(std::size_t from, std::size_t to) const;

private:
    static constexpr std::intptr_t kNone = -1;
    std::intptr_t m_handle = kNone;
    const char* m_memory = nullptr;
    std::size_t m_size = 0;
};

} // namespace Quorvex::platform
