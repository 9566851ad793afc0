#pragma once

#include <cstdint>

namespace Quorvex::detail {

/// What is told of the process beside its threads' traces, in a file of its own, so that addresses can be resolved
/// afterwards: the program, its threads, and the modules that are loaded. docs/format.md has the texts. Every packet is
/// handed to the system at once. All functions may be called by any thread and in signal handlers, keep errno, take no
/// memory from the program's allocator, and tell nothing where the file cannot be written.
namespace facts {

/// Begins the file, once in a process; a forked child begins one of its own. Takes the program's allocator, and the
/// environment, as making a thread's stream does.
void begin();
/// What was told of a thread's name.
struct ThreadName {
    char text[17] = {}; ///< the system's longest has 15 characters
    bool isTold = false;
};
/// Tells that the calling thread is one of the process, and what it is called, where that has not been told.
void tellThread(ThreadName& told);
/// Tells of modules that were loaded, and of those that have gone, since this was last called. False where another
/// thread is doing so and that could not be waited for.
bool tellModules();

} // namespace facts

} // namespace Quorvex::detail
