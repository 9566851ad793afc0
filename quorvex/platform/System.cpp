#include "quorvex/platform/System.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#if defined(_WIN32)
#include "quorvex/platform/Com.h"

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <fibersapi.h>
#include <fileapi.h>
#include <handleapi.h>
#include <io.h>
#include <memoryapi.h>
#include <processthreadsapi.h>
#include <profileapi.h>
#else
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/membarrier.h>
#include <sys/syscall.h>
#endif
#endif

namespace Quorvex::platform {

namespace {
constexpr std::size_t kEnvironmentLimit = 260; // characters
} // namespace

std::string errorText(int error) {
    return std::generic_category().message(error);
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
    wchar_t wide[kEnvironmentLimit + 1] = {};
    const DWORD length = GetEnvironmentVariableW(wideName.c_str(), wide, kEnvironmentLimit + 1);
    if (length == 0 || length > kEnvironmentLimit)
        return {};
    const int size = WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(length), narrow.data(), size, nullptr, nullptr);
    return narrow;
}

std::string defaultTemporaryDirectory() {
    return {};
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

void* mapFile(const char* path, std::size_t size, int& error) {
    const HANDLE file = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    void* memory = nullptr;
    if (file != INVALID_HANDLE_VALUE) {
        // Memory, mapping and file each keep what they stand on alive.
        const HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, 0, nullptr);
        if (mapping) {
            memory = MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, size);
            CloseHandle(mapping);
        }
        CloseHandle(file);
    }
    if (!memory) {
        const auto reason = std::error_code(static_cast<int>(GetLastError()), std::system_category());
        error = reason.default_error_condition().value();
    }
    return memory;
}

void unmapFile(void* memory, std::size_t) {
    UnmapViewOfFile(memory);
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
    if (value)
        g_threadEnded.load()(value);
}
} // namespace

void onThreadEnd(void (*ended)(void* value), void* value) {
    // Not a thread_local object with a destructor: MinGW frees such objects before it calls their destructors.
    static const DWORD slot = FlsAlloc(callThreadEnded);
    g_threadEnded = ended;
    FlsSetValue(slot, value);
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
    return value ? std::string(value, strnlen(value, kEnvironmentLimit)) : std::string();
}

std::string defaultTemporaryDirectory() {
    const std::string directory = environment("TMPDIR");
    return directory.empty() ? "/tmp" : directory;
}

int openError(const char*) {
    return errno;
}

void makeStandardStreamsBinary() {}

void* mapFile(const char* path, std::size_t size, int& error) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    void* memory = MAP_FAILED;
    if (file >= 0)
        memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (memory == MAP_FAILED) {
        error = errno;
        memory = nullptr;
    }
    if (file >= 0)
        close(file); // the memory stays
    return memory;
}

void unmapFile(void* memory, std::size_t size) {
    munmap(memory, size);
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
    struct End {
        void (*ended)(void*);
        void* value;
        ~End() {
            if (value)
                ended(value);
        }
    };
    static thread_local End end{nullptr, nullptr};
    end.ended = ended;
    end.value = value;
}

void onFork(void (*before)(), void (*afterInParent)(), void (*afterInChild)()) {
    pthread_atfork(before, afterInParent, afterInChild);
}

#endif

} // namespace Quorvex::platform
