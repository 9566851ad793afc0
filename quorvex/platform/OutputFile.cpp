#include "quorvex/platform/OutputFile.h"

#include "quorvex/platform/Files.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <random>
#include <system_error>
#include <utility>

#if defined(_WIN32)
#include <io.h>
#include <winbase.h>
#else
#include <poll.h>
#include <unistd.h>
#endif

namespace Quorvex::platform {

namespace {

constexpr int kMostLinks = 40;
constexpr int kMostTries = 100;
/// No system takes more at once.
constexpr std::size_t kMostBytes = 0x40000000;

/// A name in a directory that nothing is likely to have.
std::string nameIn(const std::string& directory) {
    static constexpr char kLetters[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::random_device random;
    std::string name = ".qvx-";
    for (int i = 0; i < 12; ++i)
        name += kLetters[random() % (sizeof kLetters - 1)];
    return (std::filesystem::path(directory) / name).string();
}

/// The descriptor of this process that a path names by itself, without a link; else -1.
int ownDescriptor(const std::filesystem::path& path);

} // namespace

int followLinks(std::string& path, int& descriptor) {
    descriptor = -1;
    for (int links = 0; links <= kMostLinks; ++links) {
        descriptor = ownDescriptor(path);
        std::error_code error;
        if (descriptor >= 0 || !is_symlink(std::filesystem::symlink_status(path, error)))
            return 0;
        const std::filesystem::path target = std::filesystem::read_symlink(path, error);
        if (error)
            return error.default_error_condition().value();
        path = (std::filesystem::path(path).parent_path() / target).string();
    }
    return ELOOP;
}

OutputFile* OutputFile::g_first = nullptr;

bool OutputFile::failed() {
    m_error = errno;
    return false;
}

#if defined(_WIN32)

namespace {

FileStatus statusOfHandle(HANDLE handle) {
    FileStatus status;
    BY_HANDLE_FILE_INFORMATION information{};
    switch (GetFileType(handle)) {
    case FILE_TYPE_DISK:
        if (!GetFileInformationByHandle(handle, &information)) {
            status.error = lastError();
            break;
        }
        status.sort =
            information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY ? FileStatus::Directory : FileStatus::Regular;
        status.identity = identityOf(information);
        status.isWritable = !(information.dwFileAttributes & FILE_ATTRIBUTE_READONLY);
        break;
    case FILE_TYPE_CHAR:
    case FILE_TYPE_PIPE: // has nothing to tell it by
        status.sort = FileStatus::Device;
        status.isWritable = true;
        break;
    default:
        status.sort = FileStatus::Other;
    }
    return status;
}

int ownDescriptor(const std::filesystem::path&) {
    return -1;
}

/// Whether a file is gone when it is closed, or when its process ends in any way.
bool vanishes(int descriptor, bool does) {
    FILE_DISPOSITION_INFO information{};
    information.DeleteFile = does;
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(descriptor));
    return SetFileInformationByHandle(handle, FileDispositionInfo, &information, sizeof information);
}

/// Guards the list of files, which the thread that is told of the end of the process looks through.
std::mutex g_files;

struct FilesHeld {
    std::lock_guard<std::mutex> lock{g_files};
};

} // namespace

FileStatus FileStatus::of(const std::string& path) {
    const HANDLE handle =
        CreateFileA(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    FileStatus status;
    if (handle == INVALID_HANDLE_VALUE) {
        status.error = lastError();
        if (status.error == ENOENT)
            status.error = 0;
        return status;
    }
    status = statusOfHandle(handle);
    CloseHandle(handle);
    return status;
}

FileStatus FileStatus::of(int descriptor) {
    const auto handle = reinterpret_cast<HANDLE>(_get_osfhandle(descriptor));
    FileStatus status;
    if (handle == INVALID_HANDLE_VALUE) {
        status.error = EBADF;
        return status;
    }
    status = statusOfHandle(handle);
    if (status.error != 0) {
        // A handle for writing alone may not be asked: it is written as it is.
        status = FileStatus();
        status.sort = FileStatus::Device;
    }
    status.isWritable = true; // its rights are the handle's, which a write tells
    return status;
}

bool OutputFile::create(const std::string& directory) {
    close();
    for (int tries = 0; !is_open() && tries < kMostTries; ++tries) {
        m_path = nameIn(directory);
        const HANDLE handle = CreateFileA(m_path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, FILE_SHARE_DELETE,
                                          nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        m_error = handle == INVALID_HANDLE_VALUE ? lastError() : 0;
        if (m_error == 0)
            m_descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_RDWR | _O_BINARY);
        else if (m_error != EEXIST)
            break;
    }
    if (is_open())
        vanishes(m_descriptor, true);
    else
        m_path.clear();
    return is_open();
}

bool OutputFile::open(const std::string& path) {
    close();
    m_descriptor = _open(path.c_str(), _O_WRONLY | _O_BINARY);
    return is_open() || failed();
}

bool OutputFile::attach(int descriptor) {
    close();
    m_descriptor = _dup(descriptor);
    return is_open() || failed();
}

bool OutputFile::write(const char* bytes, std::size_t size) {
    while (size > 0) {
        const int written = _write(m_descriptor, bytes, static_cast<unsigned>(std::min(size, kMostBytes)));
        if (written <= 0)
            return failed();
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool OutputFile::seek(std::uint64_t position) {
    return _lseeki64(m_descriptor, static_cast<std::int64_t>(position), SEEK_SET) >= 0 || failed();
}

std::size_t OutputFile::read(char* bytes, std::size_t size) {
    const int got = _read(m_descriptor, bytes, static_cast<unsigned>(std::min(size, kMostBytes)));
    m_error = got < 0 ? errno : 0;
    return got < 0 ? 0 : static_cast<std::size_t>(got);
}

bool OutputFile::place(const std::string& path, bool replaces) {
    const std::string from = m_path;
    vanishes(m_descriptor, false);
    m_path.clear();
    if (close() && MoveFileExA(from.c_str(), path.c_str(), replaces ? MOVEFILE_REPLACE_EXISTING : 0))
        return true;
    m_error = m_error ? m_error : lastError();
    DeleteFileA(from.c_str());
    return false;
}

void OutputFile::unname() {
    m_path.clear();
}

bool OutputFile::close() {
    if (!is_open()) {
        if (!m_path.empty()) // it is paused
            DeleteFileA(m_path.c_str());
        forget();
        return true;
    }
    m_error = _close(m_descriptor) == 0 ? 0 : errno;
    m_descriptor = -1;
    m_path.clear();
    return m_error == 0;
}

bool OutputFile::pause() {
    if (!is_open() || m_path.empty())
        return true;
    m_identity = FileStatus::of(m_descriptor).identity;
    m_position = _telli64(m_descriptor);
    remember(); // open, it would vanish by itself
    vanishes(m_descriptor, false);
    m_error = _close(m_descriptor) == 0 ? 0 : errno;
    m_descriptor = -1;
    return m_error == 0;
}

bool OutputFile::resume() {
    if (is_open())
        return true;
    const HANDLE handle = CreateFileA(m_path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    m_error = handle == INVALID_HANDLE_VALUE ? lastError() : 0;
    if (m_error != 0)
        return false;
    m_descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_RDWR | _O_BINARY);
    if (!(FileStatus::of(m_descriptor).identity == m_identity)) {
        _close(m_descriptor);
        m_descriptor = -1;
        m_error = ENOENT;
        return false;
    }
    vanishes(m_descriptor, true);
    const std::string path = m_path;
    forget();
    m_path = path;
    return seek(static_cast<std::uint64_t>(m_position));
}

void OutputFile::removeAll(int) {
    const FilesHeld held;
    for (const OutputFile* file = g_first; file; file = file->m_next)
        DeleteFileA(file->m_path.c_str());
}

void OutputFile::prepareProcess() {
    SetConsoleCtrlHandler(
        [](DWORD signal) -> BOOL {
            removeAll(static_cast<int>(signal));
            return FALSE; // the process ends as it would
        },
        TRUE);
}

#else

namespace {

/// The signals that end a process and are not its own fault.
constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGXCPU, SIGVTALRM};

/// Holds signals back: their handler finds the list of files and the file system in accord.
class FilesHeld {
public:
    FilesHeld() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &m_before);
    }
    ~FilesHeld() {
        const int error = errno;
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = error;
    }
    FilesHeld(const FilesHeld&) = delete;
    FilesHeld& operator=(const FilesHeld&) = delete;

private:
    sigset_t m_before{};
};

FileStatus statusOf(const struct stat& found) {
    FileStatus status;
    status.sort = S_ISREG(found.st_mode)    ? FileStatus::Regular
                  : S_ISCHR(found.st_mode)  ? FileStatus::Device
                  : S_ISFIFO(found.st_mode) ? FileStatus::Fifo
                  : S_ISDIR(found.st_mode)  ? FileStatus::Directory
                                            : FileStatus::Other;
    status.identity = identityOf(found);
    return status;
}

int ownDescriptor(const std::filesystem::path& path) {
    std::error_code error;
    const std::string directory = std::filesystem::canonical(path.parent_path(), error).string();
    const std::string own = "/proc/" + std::to_string(getpid());
    const bool isOwn = directory == "/dev/fd" || (directory.starts_with(own + "/") && directory.ends_with("/fd"));
    const std::string name = path.filename().string();
    int descriptor = -1;
    const auto [end, wrong] = std::from_chars(name.data(), name.data() + name.size(), descriptor);
    return isOwn && wrong == std::errc() && end == name.data() + name.size() ? descriptor : -1;
}

/// In a directory like /tmp, a file is replaced by its owner only, or the directory's.
bool mayReplace(const std::string& path, const struct stat& file) {
    struct stat directory {};
    const std::string parent = std::filesystem::path(path).parent_path().string();
    const uid_t user = geteuid();
    return !S_ISREG(file.st_mode) || stat(parent.empty() ? "." : parent.c_str(), &directory) != 0 ||
           !(directory.st_mode & S_ISVTX) || user == 0 || user == file.st_uid || user == directory.st_uid;
}

mode_t umaskOfProcess() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

} // namespace

FileStatus FileStatus::of(const std::string& path) {
    struct stat found {};
    FileStatus status;
    if (stat(path.c_str(), &found) == 0) {
        status = statusOf(found);
        status.isWritable = faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 && mayReplace(path, found);
    } else if (errno != ENOENT) {
        status.error = errno;
    }
    return status;
}

FileStatus FileStatus::of(int descriptor) {
    struct stat found {};
    FileStatus status;
    if (fstat(descriptor, &found) == 0) {
        status = statusOf(found);
        status.isWritable = (fcntl(descriptor, F_GETFL) & O_ACCMODE) != O_RDONLY;
    } else {
        status.error = errno;
    }
    return status;
}

bool OutputFile::create(const std::string& directory) {
    close();
    const FilesHeld held;
    for (int tries = 0; tries < kMostTries; ++tries) {
        m_path = nameIn(directory);
        m_descriptor = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
        if (is_open()) {
            remember();
            return true;
        }
        if (errno != EEXIST)
            break;
    }
    m_path.clear();
    return failed();
}

bool OutputFile::open(const std::string& path) {
    close();
    m_descriptor = ::open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (!is_open())
        return failed();
    // What it leads to may have changed since somebody has looked.
    const FileStatus::Sort sort = FileStatus::of(m_descriptor).sort;
    if (sort == FileStatus::Device || sort == FileStatus::Fifo)
        return true;
    close();
    errno = EEXIST;
    return failed();
}

bool OutputFile::attach(int descriptor) {
    close();
    m_descriptor = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    return is_open() || failed();
}

bool OutputFile::write(const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(m_descriptor, bytes, std::min(size, kMostBytes));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0 && errno == EAGAIN) {
            // Another process has set what they share not to wait.
            pollfd room{m_descriptor, POLLOUT, 0};
            poll(&room, 1, -1);
            continue;
        }
        if (written < 0)
            return failed();
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool OutputFile::seek(std::uint64_t position) {
    return lseek(m_descriptor, static_cast<off_t>(position), SEEK_SET) >= 0 || failed();
}

std::size_t OutputFile::read(char* bytes, std::size_t size) {
    ssize_t got = 0;
    do {
        got = ::read(m_descriptor, bytes, std::min(size, kMostBytes));
    } while (got < 0 && errno == EINTR);
    m_error = got < 0 ? errno : 0;
    return got < 0 ? 0 : static_cast<std::size_t>(got);
}

bool OutputFile::place(const std::string& path, bool replaces) {
    struct stat old {};
    const bool exists = lstat(path.c_str(), &old) == 0;
    if (exists && !(replaces && S_ISREG(old.st_mode))) {
        errno = EEXIST;
        return failed();
    }
    // The owner first: to change it takes special bits of the mode away. Who may not give a file to another keeps it,
    // and must not lend it out in that one's name.
    const bool isOwners = exists && fchown(m_descriptor, old.st_uid, old.st_gid) == 0;
    const mode_t mode = exists ? old.st_mode & (isOwners ? 07777 : 01777) : 0666 & ~umaskOfProcess();
    fchmod(m_descriptor, mode); // not all file systems have modes
    const FilesHeld held;
    const std::string from = m_path;
    forget();
    // A file that has come to be there in the meantime is not replaced: a new name is made first, for the file itself
    // or, where files have one name only, for an empty one.
    bool placed = false;
    if (close()) {
        placed = !replaces && link(from.c_str(), path.c_str()) == 0;
        const bool reserves = !replaces && !placed && errno != EEXIST;
        const int reserved = reserves ? ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode) : -1;
        if (reserved >= 0)
            ::close(reserved);
        if (replaces || reserved >= 0)
            placed = rename(from.c_str(), path.c_str()) == 0;
        if (!placed) {
            failed();
            if (reserved >= 0)
                unlink(path.c_str());
        }
    }
    unlink(from.c_str()); // the name that a link or a failure has left
    return placed;
}

bool OutputFile::pause() {
    if (!is_open() || m_path.empty())
        return true;
    m_identity = FileStatus::of(m_descriptor).identity;
    m_position = lseek(m_descriptor, 0, SEEK_CUR);
    m_error = ::close(m_descriptor) == 0 ? 0 : errno;
    m_descriptor = -1;
    return m_error == 0;
}

bool OutputFile::resume() {
    if (is_open())
        return true;
    m_descriptor = ::open(m_path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (!is_open())
        return failed();
    if (FileStatus::of(m_descriptor).identity == m_identity)
        return lseek(m_descriptor, static_cast<off_t>(m_position), SEEK_SET) >= 0 || failed();
    ::close(m_descriptor);
    m_descriptor = -1;
    errno = ENOENT;
    return failed();
}

void OutputFile::unname() {
    if (m_path.empty())
        return;
    const FilesHeld held;
    unlink(m_path.c_str());
    forget();
}

bool OutputFile::close() {
    unname();
    if (!is_open())
        return true;
    m_error = ::close(m_descriptor) == 0 ? 0 : errno;
    m_descriptor = -1;
    return m_error == 0;
}

void OutputFile::removeAll(int signal) {
    for (const OutputFile* file = g_first; file; file = file->m_next)
        unlink(file->m_path.c_str());
    // The default action comes when the handler returns. To have the system bring it back on the way to the handler
    // would be too early: a second signal on the heels of the first would end the process with the files in place.
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    raise(signal);
}

void OutputFile::prepareProcess() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0)
            ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY); // the lowest that is free
    }
    struct sigaction action {};
    action.sa_handler = removeAll;
    sigfillset(&action.sa_mask);
    for (const int signal : kSignals) {
        struct sigaction before {};
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
            sigaction(signal, &action, nullptr);
    }
    std::signal(SIGXFSZ, SIG_IGN);
}

#endif

void OutputFile::remember() {
    const FilesHeld held;
    m_next = std::exchange(g_first, this);
}

void OutputFile::forget() {
    const FilesHeld held;
    OutputFile** at = &g_first;
    while (*at && *at != this)
        at = &(*at)->m_next;
    if (*at)
        *at = m_next;
    m_next = nullptr;
    m_path.clear();
}

} // namespace Quorvex::platform
