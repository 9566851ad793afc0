#include "quorvex/platform/System.h"

#include "quorvex/platform/Files.h"
#include "quorvex/platform/Interruption.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#if defined(_WIN32)
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <fibersapi.h>
#include <io.h>
#include <memoryapi.h>
#include <processthreadsapi.h>
#include <profileapi.h>
#else
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/membarrier.h>
#include <sys/syscall.h>
#endif
#endif

namespace Quorvex::platform {

namespace {
constinit thread_local unsigned t_uninterrupted = 0;
} // namespace

unsigned uninterruptedHere() {
    return t_uninterrupted;
}

std::string errorText(int error) {
    return std::generic_category().message(error);
}

std::string temporaryDirectory() {
    for (const char* variable : {"TEMP", "TMP"}) {
        if (std::string named = environment(variable); !named.empty())
            return named;
    }
    return defaultTemporaryDirectory();
}

#if defined(_WIN32)

std::uint64_t counterTick() {
    LARGE_INTEGER tick;
    return QueryPerformanceCounter(&tick) ? static_cast<std::uint64_t>(tick.QuadPart) : 0;
}

std::uint64_t counterFrequency() {
    LARGE_INTEGER frequency;
    return QueryPerformanceFrequency(&frequency) ? static_cast<std::uint64_t>(frequency.QuadPart) : 1;
}

unsigned currentThreadId() {
    return GetCurrentThreadId();
}

unsigned currentProcessor() {
    return GetCurrentProcessorNumber();
}

std::string environment(const char* name) {
    const std::wstring wideName(name, name + std::strlen(name));
    std::wstring wide(GetEnvironmentVariableW(wideName.c_str(), nullptr, 0), L'\0'); // with its terminator
    const DWORD room = static_cast<DWORD>(wide.size());
    const DWORD length = GetEnvironmentVariableW(wideName.c_str(), wide.data(), room);
    if (length == 0 || length >= room)
        return {};
    const int count = static_cast<int>(length);
    const int size = WideCharToMultiByte(CP_ACP, 0, wide.data(), count, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide.data(), count, narrow.data(), size, nullptr, nullptr);
    return narrow;
}

std::string defaultTemporaryDirectory() {
    return {};
}

std::string absolutePath(const std::string& path) {
    char absolute[MAX_PATH];
    const DWORD size = GetFullPathNameA(path.c_str(), sizeof absolute, absolute, nullptr);
    return size == 0 || size >= sizeof absolute ? path : std::string(absolute, size);
}

int openError(const char* path) {
    // Directories are said to deny access.
    const int error = errno;
    const DWORD attributes = error == EACCES ? GetFileAttributesA(path) : INVALID_FILE_ATTRIBUTES;
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) ? EISDIR : error;
}

void makeStandardStreamsBinary() {
    for (std::FILE* stream : {stdin, stdout, stderr})
        _setmode(_fileno(stream), _O_BINARY);
}

bool isTerminal(int stream) {
    return _isatty(stream) != 0;
}

void* allocatePages(std::size_t size) {
    return VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
}

void freePages(void* memory, std::size_t) {
    VirtualFree(memory, 0, MEM_RELEASE);
}

void tellUser(std::initializer_list<std::string_view> parts) {
    DWORD written = 0;
    for (const std::string_view part : parts)
        WriteFile(GetStdHandle(STD_ERROR_HANDLE), part.data(), static_cast<DWORD>(part.size()), &written, nullptr);
}

// Nothing interrupts a thread here.
Uninterrupted::Uninterrupted() : m_errno(errno), m_systemError(GetLastError()) {
    ++t_uninterrupted;
}

Uninterrupted::~Uninterrupted() {
    --t_uninterrupted;
    errno = m_errno;
    SetLastError(m_systemError);
}

bool barrierOnAllThreads() {
    FlushProcessWriteBuffers();
    return true;
}

void prepareBarrierOnAllThreads() {}

namespace {
// Written before the first slot gets a value, and then only with the same.
std::atomic<void (*)(void*)> g_threadEnded{nullptr};

void CALLBACK callThreadEnded(void* value) {
    if (const auto ended = g_threadEnded.load(); value && ended)
        ended(value);
}
} // namespace

void onThreadEnd(void (*ended)(void* value), void* value) {
    // Not a thread_local object with a destructor: MinGW frees such objects before it calls their destructors.
    struct Slot {
        DWORD index = FlsAlloc(callThreadEnded);
        // The library may be unloaded while threads live; giving the slot back calls for all of them.
        ~Slot() {
            g_threadEnded = nullptr;
            FlsFree(index);
        }
    };
    static const Slot slot;
    g_threadEnded = ended;
    FlsSetValue(slot.index, value);
}

void onFork(void (*)(), void (*)(), void (*)()) {}

#else

namespace {
constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
} // namespace

std::uint64_t counterTick() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * kNanosecondsPerSecond + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t counterFrequency() {
    return kNanosecondsPerSecond;
}

unsigned currentThreadId() {
#if defined(__linux__)
    return static_cast<unsigned>(syscall(SYS_gettid));
#else
    std::uint64_t id = 0;
    pthread_threadid_np(nullptr, &id);
    return static_cast<unsigned>(id);
#endif
}

unsigned currentProcessor() {
#if defined(__linux__)
    const int processor = sched_getcpu();
    return processor < 0 ? 0 : static_cast<unsigned>(processor);
#else
    return 0;
#endif
}

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::string defaultTemporaryDirectory() {
    const std::string directory = environment("TMPDIR");
    return directory.empty() ? "/tmp" : directory;
}

std::string absolutePath(const std::string& path) {
    char directory[4096];
    if (path.starts_with('/') || !getcwd(directory, sizeof directory))
        return path;
    return std::string(directory) + (path == "." ? "" : "/" + path);
}

int openError(const char*) {
    return errno;
}

void makeStandardStreamsBinary() {}

bool isTerminal(int stream) {
    return isatty(stream) == 1;
}

void* allocatePages(std::size_t size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

void freePages(void* memory, std::size_t size) {
    munmap(memory, size);
}

void tellUser(std::initializer_list<std::string_view> parts) {
    iovec all[8];
    int count = 0;
    std::size_t left = PIPE_BUF; // no pipe that has room has less
    for (const std::string_view part : parts) {
        const std::size_t size = std::min(part.size(), left);
        left -= size;
        if (count < 8)
            all[count++] = {const_cast<char*>(part.data()), size};
    }
    const Uninterrupted quiet;
    pollfd room{STDERR_FILENO, POLLOUT, 0};
    if (poll(&room, 1, 0) == 0)
        return; // nobody could end the wait, because signals are held off
    const SignalOfWrite nobodyReads(SIGPIPE), tooLarge(SIGXFSZ);
    if (writev(STDERR_FILENO, all, count) < 0)
        tooLarge.takenBack(nobodyReads.takenBack(errno, EPIPE), EFBIG);
}

Uninterrupted::Uninterrupted() : m_errno(errno) {
    static_assert(sizeof(sigset_t) <= sizeof m_signals);
    sigset_t all;
    sigfillset(&all);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&all, fault);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &all, &before);
    std::memcpy(m_signals, &before, sizeof before);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState);
    ++t_uninterrupted;
}

Uninterrupted::~Uninterrupted() {
    --t_uninterrupted;
    pthread_setcancelstate(m_cancelState, nullptr);
    sigset_t before;
    std::memcpy(&before, m_signals, sizeof before);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = m_errno;
}

#if defined(__linux__)

bool barrierOnAllThreads() {
    return syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0;
}

void prepareBarrierOnAllThreads() {
    syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0);
}

#else

bool barrierOnAllThreads() {
    return false;
}

void prepareBarrierOnAllThreads() {}

#endif

void onThreadEnd(void (*ended)(void* value), void* value) {
    // A key, because its destructor comes after those of all thread_local objects, and comes again for a value that is
    // set meanwhile. Threads may end after the library was unloaded; then the key must be gone.
    struct Key {
        pthread_key_t key{};
        bool made;
        explicit Key(void (*call)(void*)) : made(pthread_key_create(&key, call) == 0) {}
        ~Key() {
            if (made)
                pthread_key_delete(key);
        }
    };
    static const Key key(ended);
    if (key.made)
        pthread_setspecific(key.key, value);
}

void onFork(void (*before)(), void (*afterInParent)(), void (*afterInChild)()) {
    pthread_atfork(before, afterInParent, afterInChild);
}

#endif

} // namespace Quorvex::platform
