#pragma once

/// What the library asks of the system it runs on. Nothing above this folder knows which system that is.

#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Quorvex::platform {

/// The high-resolution counter of the system; it never goes back and all threads read the same one.
QUORVEX_API std::uint64_t counterTick();
/// Ticks of that counter in one second.
QUORVEX_API std::uint64_t counterFrequency();

/// The number by which the system tells the calling thread from all others that run now. Numbers of ended threads
/// may be given again.
QUORVEX_API unsigned currentThreadId();
/// The processor that the caller runs on at this moment.
QUORVEX_API unsigned currentProcessor();

/// The value of an environment variable; empty when unset.
QUORVEX_API std::string environment(const char* name);
/// The longest value that names of files may be made of, in characters.
inline constexpr std::size_t kEnvironmentLimit = 260;
/// The directory for temporary files: that in TEMP, else in TMP, else the default.
QUORVEX_API std::string temporaryDirectory();
/// The directory for temporary files where those name none; may be empty.
QUORVEX_API std::string defaultTemporaryDirectory();

/// Has the standard streams of the process carry bytes as they are, also where the system makes line ends of its own.
QUORVEX_API void makeStandardStreamsBinary();

/// Whether a standard stream of the process (0 input, 1 output, 2 errors) is a terminal.
QUORVEX_API bool isTerminal(int stream);

/// The system's text for one of its error numbers (errno), as in "Permission denied".
QUORVEX_API std::string errorText(int error);
/// The path from the root of the file system, for a program that may change its working directory; as it is where that
/// cannot be told.
QUORVEX_API std::string absolutePath(const std::string& path);
/// Why a file could not be opened just now (errno); for a directory always EISDIR.
QUORVEX_API int openError(const char* path);

/// Zeroed memory straight from the system, whole pages, and back to it. Null when there is none. Neither uses the
/// allocator of the program, so they may be called where that was interrupted.
QUORVEX_API void* allocatePages(std::size_t size);
QUORVEX_API void freePages(void* memory, std::size_t size); ///< gives back what allocatePages gave

/// Puts a line, given in up to eight parts, on the standard error of the process, past all buffers. Nothing comes of it
/// where that fails, or would have to wait for a reader. May be called in a signal handler.
QUORVEX_API void tellUser(std::initializer_list<std::string_view> parts);

/// While it lives, no signal handler of the program runs in this thread and the thread is not cancelled; both happen
/// afterwards. Afterwards the thread finds its error number (errno and the like) as it was. Signals that a fault in the
/// program raises are not held off. Instances may be nested.
class QUORVEX_API Uninterrupted {
public:
    Uninterrupted();
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;
    ~Uninterrupted();

private:
    alignas(8) unsigned char m_signals[128];
    int m_cancelState = 0;
    int m_errno;
    unsigned long m_systemError = 0;
};

/// Makes all threads of the process see what the caller wrote before, and the caller what they wrote, as if each had
/// just passed a full memory barrier. Lets the other side of a rare handshake do without one. False where the system
/// offers no such thing; the caller then has to wait instead.
QUORVEX_API bool barrierOnAllThreads();
/// Tells the system that barrierOnAllThreads will be called; at least once per process, before the other threads
/// matter.
QUORVEX_API void prepareBarrierOnAllThreads();

/// Has `ended(value)` called by the calling thread when it ends, after the destructors of its thread_local objects;
/// what was said before for this thread no longer counts. A null value takes it back. All calls in a process give the
/// same function. Nothing is called any more once the library is unloaded, nor for a main thread that ends the process.
QUORVEX_API void onThreadEnd(void (*ended)(void* value), void* value);

/// Calls the three functions around every fork of the process (the last one in the child). No effect where processes
/// do not fork.
QUORVEX_API void onFork(void (*before)(), void (*afterInParent)(), void (*afterInChild)());

/// Overwrites an object in a way that no optimiser removes, also when the object's life is about to end. It costs the
/// stores and nothing else.
template <class T> void overwrite(T& object, unsigned char value) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_memset(&reinterpret_cast<char&>(object), value, sizeof object);
    __asm__ volatile("" : : "m"(reinterpret_cast<const char(&)[sizeof object]>(object)));
#else
    auto* byte = &reinterpret_cast<volatile unsigned char&>(object);
    for (std::size_t i = 0; i < sizeof object; ++i)
        byte[i] = value;
#endif
}

/// The same for `size` bytes.
inline void overwrite(void* object, unsigned char value, std::size_t size) {
#if defined(__GNUC__) || defined(__clang__)
    __builtin_memset(object, value, size);
    __asm__ volatile("" : : "r"(object) : "memory");
#else
    volatile unsigned char* byte = static_cast<unsigned char*>(object);
    while (size-- > 0)
        *byte++ = value;
#endif
}

} // namespace Quorvex::platform
