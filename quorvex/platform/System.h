#pragma once

/// What the library asks of the system it runs on. Nothing above this folder knows which system that is.

#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <string>

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

/// The value of an environment variable, cut at 260 characters; empty when unset.
QUORVEX_API std::string environment(const char* name);
/// The directory for temporary files where the environment names none; may be empty.
QUORVEX_API std::string defaultTemporaryDirectory();

/// Has the standard streams of the process carry bytes as they are, also where the system makes line ends of its own.
QUORVEX_API void makeStandardStreamsBinary();

/// The system's text for one of its error numbers (errno), as in "Permission denied".
QUORVEX_API std::string errorText(int error);
/// Why a file could not be opened just now (errno); for a directory always EISDIR.
QUORVEX_API int openError(const char* path);

/// The first `size` bytes of an existing file, as memory that is shared with it: what is stored there is in the file,
/// whatever becomes of the process. The file must be that long, and stay so. Null with the system's error number.
QUORVEX_API void* mapFile(const char* path, std::size_t size, int& error);
QUORVEX_API void unmapFile(void* memory, std::size_t size);

/// Makes all threads of the process see what the caller wrote before, and the caller what they wrote, as if each had
/// just passed a full memory barrier. Lets the other side of a rare handshake do without one. False where the system
/// offers no such thing; the caller then has to wait instead.
QUORVEX_API bool barrierOnAllThreads();
/// Tells the system that barrierOnAllThreads will be called; once per process, before the other threads matter.
QUORVEX_API void prepareBarrierOnAllThreads();

/// Has `ended(value)` called by the calling thread when it ends; what was said before for this thread no longer counts.
/// A null value takes it back. All calls in a process give the same function. The main thread's end is told only where
/// that comes before the end of the process.
QUORVEX_API void onThreadEnd(void (*ended)(void* value), void* value);

/// Calls the three functions around every fork of the process (the last one in the child). No effect where processes
/// do not fork.
QUORVEX_API void onFork(void (*before)(), void (*afterInParent)(), void (*afterInChild)());

/// Overwrites `size` bytes in a way that no optimiser removes, also when the object's life is about to end.
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
