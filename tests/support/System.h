#pragma once

#include "quorvex/platform/Com.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// What the tests ask of the system they run on; there is one source file a system.
namespace Quorvex::test {

/// Runs a program with an argument, in a directory and with changes to its environment. What it prints goes to the
/// file `told` there. Its exit code; -1 when it did not run or was ended from outside.
int run(const std::string& directory, const std::vector<std::pair<std::string, std::string>>& environment,
        const char* program, const std::string& argument);

/// Whether there is a shell, for tests in which other programs read what ours write.
bool hasShell();
/// Whether there is a device that every write to fails because it is full: /dev/full.
bool hasFullDevice();

bool canFork();
/// Forks the process, calls the one function in the child, which must not come back, and the other in the parent. The
/// exit code of the child; -1 when it did not end by itself, or where processes do not fork.
int fork(const std::function<void()>& inChild, const std::function<void()>& inParent);

/// A stream in memory that the system brings along; null where it has none.
ATL::CComPtr<IStream> systemStream();

} // namespace Quorvex::test
