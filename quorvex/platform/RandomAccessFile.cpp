#include "quorvex/platform/RandomAccessFile.h"

#include "quorvex/platform/Files.h"

#include <cerrno>

#if defined(_WIN32)
#include <memoryapi.h>
#else
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace Quorvex::platform {

#if defined(_WIN32)

namespace {

std::intptr_t open(const char* path, DWORD access, DWORD disposition) {
    return reinterpret_cast<std::intptr_t>(CreateFileA(path, access,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                       disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

std::intptr_t openNew(const char* path) {
    return open(path, GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
}

std::intptr_t openOld(const char* path) {
    return open(path, GENERIC_WRITE, OPEN_EXISTING);
}

} // namespace

bool RandomAccessFile::identify(std::intptr_t handle, FileIdentity& identity) {
    BY_HANDLE_FILE_INFORMATION information;
    if (!GetFileInformationByHandle(asHandle(handle), &information))
        return false;
    identity = identityOf(information);
    return true;
}

bool RandomAccessFile::isOpen() const {
    return m_handle != kNone; // unlike descriptors, handles are not closed by number
}

int RandomAccessFile::write(const char* bytes, unsigned count, std::uint64_t position, unsigned& written) {
    for (written = 0; written < count;) {
        OVERLAPPED place{};
        place.Offset = static_cast<DWORD>(position + written);
        place.OffsetHigh = static_cast<DWORD>((position + written) >> 32);
        DWORD taken = 0;
        if (!WriteFile(asHandle(m_handle), bytes + written, count - written, &taken, &place))
            return lastError();
        if (taken == 0)
            return ENOSPC;
        written += taken;
    }
    return 0;
}

int RandomAccessFile::truncate(std::uint64_t size) {
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(size);
    const bool done =
        SetFilePointerEx(asHandle(m_handle), end, nullptr, FILE_BEGIN) && SetEndOfFile(asHandle(m_handle));
    return done ? 0 : lastError();
}

int RandomAccessFile::release(std::uint64_t, std::uint64_t) {
    return ENOSYS;
}

void* RandomAccessFile::map(std::size_t size, int& error) {
    // Memory, mapping and file each keep what they stand on alive.
    const HANDLE mapping = CreateFileMappingW(asHandle(m_handle), nullptr, PAGE_READWRITE, 0, 0, nullptr);
    void* const memory = mapping ? MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, size) : nullptr;
    error = memory ? 0 : lastError();
    if (mapping)
        CloseHandle(mapping);
    return memory;
}

void RandomAccessFile::unmap(void* memory, std::size_t) {
    UnmapViewOfFile(memory);
}

#else

bool RandomAccessFile::identify(std::intptr_t handle, FileIdentity& identity) {
    struct stat status;
    if (fstat(static_cast<int>(handle), &status) != 0)
        return false;
    identity = identityOf(status);
    return true;
}

namespace {

std::intptr_t open(const char* path, int flags) {
    const int descriptor = ::open(path, flags | O_CLOEXEC, 0666);
    if (descriptor < 0 || descriptor > STDERR_FILENO)
        return descriptor;
    // The program has closed a standard stream; what it prints must not end up here.
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return moved;
}

std::intptr_t openNew(const char* path) {
    return open(path, O_RDWR | O_CREAT | O_EXCL);
}

std::intptr_t openOld(const char* path) {
    return open(path, O_WRONLY | O_NOFOLLOW);
}

} // namespace

bool RandomAccessFile::isOpen() const {
    FileIdentity found;
    return m_handle != kNone && identify(m_handle, found) && found == m_identity;
}

int RandomAccessFile::write(const char* bytes, unsigned count, std::uint64_t position, unsigned& written) {
    const SignalOfWrite tooLarge(SIGXFSZ);
    for (written = 0; written < count;) {
        const ssize_t taken = pwrite(static_cast<int>(m_handle), bytes + written, count - written,
                                     static_cast<off_t>(position + written));
        if (taken > 0)
            written += static_cast<unsigned>(taken);
        else if (taken == 0)
            return ENOSPC;
        else if (errno != EINTR)
            return tooLarge.takenBack(errno, EFBIG);
    }
    return 0;
}

int RandomAccessFile::truncate(std::uint64_t size) {
    while (ftruncate(static_cast<int>(m_handle), static_cast<off_t>(size)) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}

int RandomAccessFile::release(std::uint64_t position, std::uint64_t size) {
#if defined(__linux__)
    while (fallocate(static_cast<int>(m_handle), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                     static_cast<off_t>(position), static_cast<off_t>(size)) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
#else
    static_cast<void>(position + size);
    return ENOSYS;
#endif
}

void* RandomAccessFile::map(std::size_t size, int& error) {
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(m_handle), 0);
    error = memory == MAP_FAILED ? errno : 0;
    return memory == MAP_FAILED ? nullptr : memory;
}

void RandomAccessFile::unmap(void* memory, std::size_t size) {
    munmap(memory, size);
}

#endif

int RandomAccessFile::create(const char* path) {
    close();
    m_identity = FileIdentity();
    return take(openNew(path));
}

int RandomAccessFile::reopen(const char* path) {
    close();
    return take(openOld(path));
}

int RandomAccessFile::take(std::intptr_t handle) {
    FileIdentity found;
    if (handle == kNone)
        return lastError();
    int error = identify(handle, found) ? 0 : lastError();
    if (error == 0 && m_identity != FileIdentity() && found != m_identity)
        error = ENOENT;
    if (error != 0) {
        closeNative(handle);
        return error;
    }
    m_handle = handle;
    m_identity = found;
    return 0;
}

void RandomAccessFile::close() {
    // A descriptor that is another file's by now is left to its owner.
    if (isOpen())
        closeNative(m_handle);
    m_handle = kNone;
}

} // namespace Quorvex::platform
