// On 32-bit systems a file of more than 2 GiB must be asked for, before the first header.
#define _FILE_OFFSET_BITS 64

#include "quorvex/platform/RandomAccessFile.h"

#include "quorvex/platform/Files.h"

#include <cerrno>

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>
#endif

namespace Quorvex::platform {

#if defined(_WIN32)

namespace {

HANDLE asHandle(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

std::intptr_t open(const char* path, DWORD disposition) {
    return reinterpret_cast<std::intptr_t>(CreateFileA(path, GENERIC_WRITE,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                       disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

} // namespace

bool RandomAccessFile::identify(std::intptr_t handle, FileIdentity& identity) {
    BY_HANDLE_FILE_INFORMATION information;
    if (!GetFileInformationByHandle(asHandle(handle), &information))
        return false;
    identity = identityOf(information);
    return true;
}

int RandomAccessFile::create(const char* path) {
    close();
    m_handle = open(path, CREATE_NEW);
    return m_handle != kNone && identify(m_handle, m_identity) ? 0 : lastError();
}

int RandomAccessFile::reopen(const char* path) {
    close();
    m_handle = open(path, OPEN_EXISTING);
    FileIdentity found;
    if (m_handle == kNone || !identify(m_handle, found))
        return lastError();
    if (found == m_identity)
        return 0;
    close();
    return ENOENT;
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

void RandomAccessFile::close() {
    if (m_handle != kNone)
        CloseHandle(asHandle(m_handle));
    m_handle = kNone;
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

int open(const char* path, int flags) {
    int descriptor = ::open(path, flags | O_WRONLY | O_CLOEXEC, 0666);
    if (descriptor < 0 || descriptor > STDERR_FILENO)
        return descriptor;
    // The program has closed a standard stream; what it prints must not end up here.
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return moved;
}

/// A file that may not grow any more raises a signal that ends the program. Where the thread holds signals off, it is
/// taken back.
int refused(int error) {
#if defined(__linux__)
    if (error == EFBIG) {
        sigset_t tooLarge;
        sigemptyset(&tooLarge);
        sigaddset(&tooLarge, SIGXFSZ);
        const timespec now{};
        sigtimedwait(&tooLarge, nullptr, &now);
    }
#endif
    return error;
}

} // namespace

int RandomAccessFile::create(const char* path) {
    close();
    m_handle = open(path, O_CREAT | O_EXCL);
    return m_handle != kNone && identify(m_handle, m_identity) ? 0 : errno;
}

int RandomAccessFile::reopen(const char* path) {
    close();
    m_handle = open(path, O_NOFOLLOW);
    FileIdentity found;
    if (m_handle == kNone || !identify(m_handle, found))
        return errno;
    if (found == m_identity)
        return 0;
    close();
    return ENOENT;
}

bool RandomAccessFile::isOpen() const {
    FileIdentity found;
    return m_handle != kNone && identify(m_handle, found) && found == m_identity;
}

int RandomAccessFile::write(const char* bytes, unsigned count, std::uint64_t position, unsigned& written) {
    for (written = 0; written < count;) {
        const ssize_t taken = pwrite(static_cast<int>(m_handle), bytes + written, count - written,
                                     static_cast<off_t>(position + written));
        if (taken > 0)
            written += static_cast<unsigned>(taken);
        else if (taken == 0)
            return ENOSPC;
        else if (errno != EINTR)
            return refused(errno);
    }
    return 0;
}

void RandomAccessFile::close() {
    // A descriptor that is another file's by now is left to its owner.
    if (isOpen())
        ::close(static_cast<int>(m_handle));
    m_handle = kNone;
}

#endif

} // namespace Quorvex::platform
