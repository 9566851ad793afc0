#pragma once

#include "quorvex/platform/Com.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

/// What the tests ask of the system they run on; there is one source file a system.
namespace Quorvex::test {

/// A program to be started in a directory, with arguments and changes to its environment. What it prints goes to the
/// file `told` there.
struct Program {
    std::string path;
    std::vector<std::string> arguments;
    std::string directory;
    std::vector<std::pair<std::string, std::string>> environment;
};

/// Its exit code; -1 when it did not run or was ended from outside.
int run(const Program& program);
/// Runs the program and ends it from outside, at once and without its knowledge, as soon as `enough` says so. False
/// when it has ended before.
bool runAndKill(const Program& program, const std::function<bool()>& enough);

/// Leaves the calling process only so many bytes of room for files in a directory. False where that cannot be done.
bool limitSpace(const std::string& directory, std::uint64_t bytes);

/// Keeps the files of the calling process from growing beyond that. False where that cannot be done.
bool limitFiles(std::uint64_t bytes);
/// Has standard error go to a pipe that nobody can read, or that is full and nobody reads. False where that cannot be
/// done.
bool tellNobody(bool isFull);

/// Whether there is a shell, for tests in which other programs read what ours write, and processes fork.
bool isPosix();
/// Whether there is a device that every write to fails because it is full: /dev/full.
bool hasFullDevice();

/// Forks the process, calls the one function in the child, which must not come back, and the other in the parent. The
/// exit code of the child; -1 when it did not end by itself, or where processes do not fork.
int fork(const std::function<void()>& inChild, const std::function<void()>& inParent);

/// Calls `step` on a thread of its own, with a function that ends the thread as a cancellation does. Whether that
/// ended it; true also where threads are not ended in that way.
bool endsThread(void (*step)(void (*end)()));

/// Calls `step` when the calling thread ends, behind all that the library does then. False where that cannot be had.
bool atThreadEnd(void (*step)());

/// Becomes another program, as a shell's exec does. Comes back where that cannot be done.
void become(const std::string& program, const std::vector<std::string>& arguments);

/// Runs `work` in a thread and cancels it as soon as `started` says so. False where threads cannot be cancelled.
bool runCancelled(const std::function<void()>& work, const std::function<bool()>& started);

/// Calls `handler` in a signal handler of the thread that runs, every so many microseconds of time, until it is called
/// with null. False where there are no such handlers.
bool interruptEvery(unsigned microseconds, void (*handler)());

/// Calls `handler` in a signal handler of each thread that forks, as late before the fork as can be: where that is held
/// off by what is asked for later, afterwards in the parent. False where processes do not fork.
bool interruptForks(void (*handler)());

/// Calls `handler` in a signal handler that comes behind the n-th instruction of `work`; `came` is false when `work`
/// has fewer. False, with nothing called, where programs do not run in such steps.
bool interruptAt(unsigned n, const std::function<void()>& work, void (*handler)(), bool& came);

/// Leaves the process so many files that it may have open. False where that cannot be done.
bool limitOpenFiles(unsigned count);
/// Closes all files that the process has open but the standard streams. False where that cannot be done.
bool closeFiles();
/// Files that the process has open, and bytes of its memory that are in use; 0 where the system does not tell.
std::size_t openFiles();
std::size_t memoryInUse();

/// A stream in memory that the system brings along; null where it has none.
ATL::CComPtr<IStream> systemStream();

} // namespace Quorvex::test
