#include "quorvex/platform/MappedFile.h"

#include "quorvex/platform/Files.h"
#include "quorvex/platform/OutputFile.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#if defined(_WIN32)
#include <memoryapi.h>
#else
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace Quorvex::platform {

namespace {

#if defined(_WIN32)

std::intptr_t openToRead(const char* path) {
    return reinterpret_cast<std::intptr_t>(CreateFileA(path, GENERIC_READ,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

const char* map(std::intptr_t handle, std::size_t size) {
    // The memory keeps the mapping alive.
    const HANDLE mapping = CreateFileMappingW(asHandle(handle), nullptr, PAGE_READONLY, 0, 0, nullptr);
    const void* const memory = mapping ? MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, size) : nullptr;
    const DWORD error = GetLastError();
    if (mapping)
        CloseHandle(mapping);
    SetLastError(error);
    return static_cast<const char*>(memory);
}

void unmap(const char* memory, std::size_t) {
    UnmapViewOfFile(memory);
}

void drop(char* from, std::size_t size) {
    VirtualUnlock(from, size); // of memory that is not locked, takes it out of the working set
}

#else

std::intptr_t openToRead(const char* path) {
    return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

const char* map(std::intptr_t handle, std::size_t size) {
    void* const memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, static_cast<int>(handle), 0);
    return memory == MAP_FAILED ? nullptr : static_cast<const char*>(memory);
}

void unmap(const char* memory, std::size_t size) {
    munmap(const_cast<char*>(memory), size);
}

void drop(char* from, std::size_t size) {
    madvise(from, size, MADV_DONTNEED);
}

#endif

} // namespace

#if defined(_WIN32)

int MappedFile::size(std::uint64_t& bytes) const {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(asHandle(m_handle), &size))
        return lastError();
    bytes = static_cast<std::uint64_t>(size.QuadPart);
    return 0;
}

int MappedFile::read(char* to, unsigned count, std::uint64_t position, unsigned& got) const {
    got = 0;
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>(position);
    place.OffsetHigh = static_cast<DWORD>(position >> 32);
    DWORD taken = 0;
    if (!ReadFile(asHandle(m_handle), to, count, &taken, &place))
        return GetLastError() == ERROR_HANDLE_EOF ? 0 : lastError();
    got = taken;
    return 0;
}

#else

int MappedFile::size(std::uint64_t& bytes) const {
    struct stat status {};
    if (fstat(static_cast<int>(m_handle), &status) != 0)
        return errno;
    bytes = static_cast<std::uint64_t>(status.st_size);
    return 0;
}

int MappedFile::read(char* to, unsigned count, std::uint64_t position, unsigned& got) const {
    got = 0;
    ssize_t taken = -1;
    do {
        taken = pread(static_cast<int>(m_handle), to, count, static_cast<off_t>(position));
    } while (taken < 0 && errno == EINTR);
    if (taken < 0)
        return errno;
    got = static_cast<unsigned>(taken);
    return 0;
}

#endif

int MappedFile::open(const char* path) {
    close();
    // Looked at first: a FIFO that is opened and closed again takes its reader from the one who writes it.
    const FileStatus status = FileStatus::of(path);
    if (status.sort == FileStatus::Missing)
        return status.error != 0 ? status.error : ENOENT;
    if (status.sort != FileStatus::Regular)
        return status.sort == FileStatus::Directory ? EISDIR : ENOTSUP;
    m_handle = openToRead(path);
    if (m_handle == kNone)
        return lastError();
    std::uint64_t bytes = 0;
    int error = size(bytes);
    if (error == 0 && bytes == 0)
        error = ENODATA;
    else if (error == 0 && bytes > std::numeric_limits<std::size_t>::max() / 2)
        error = EFBIG;
    if (error == 0) {
        m_size = static_cast<std::size_t>(bytes);
        m_memory = map(m_handle, m_size);
        error = m_memory ? 0 : lastError();
        if (error == ENOMEM)
            error = EFBIG;
    }
    if (error != 0)
        close();
    return error;
}

void MappedFile::close() {
    if (m_memory)
        unmap(m_memory, m_size);
    if (m_handle != kNone)
        closeNative(m_handle);
    m_handle = kNone;
    m_memory = nullptr;
    m_size = 0;
}

void MappedFile::release(std::size_t from, std::size_t to) const {
    // Whole pages of memory, whatever their size; what stands before the last one goes with what comes next.
    constexpr std::size_t kUnit = 0x10000;
    from -= from % kUnit;
    to = std::min(to, m_size);
    to -= to % kUnit;
    if (from < to)
        drop(const_cast<char*>(m_memory) + from, to - from);
}

} // namespace Quorvex::platform
