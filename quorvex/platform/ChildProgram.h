#pragma once

#include "quorvex/platform/Export.h"

#include <string>
#include <utility>
#include <vector>

namespace Quorvex::platform {

/// Runs another program in place of this one: with its standard streams, and with the signals that are meant for it.
/// Only where processes fork. One thread at a time.
class QUORVEX_API ChildProgram {
public:
    /// Variables of the environment that the program gets besides.
    using Variables = std::vector<std::pair<std::string, std::string>>;

    /// Looks for the program as a shell does and starts it. `variableOfProcess`, unless it is empty, names a variable
    /// that gets the number of the process. An error number of the system (errno), ENOENT for a program that there is
    /// not; or 0.
    int start(const std::vector<std::string>& arguments, const Variables& variables,
              const std::string& variableOfProcess);
    /// Waits for its end, with `andAll` also for that of all processes that it has left behind. Signals that ask this
    /// process to end, or to do as the user says, are handed on to it; what the terminal sends goes to both, and is
    /// the program's alone. Its exit code, or 128 and the number of the signal that has ended it.
    int wait(bool andAll);

private:
    long m_process = 0;
};

/// The directory of the program that runs, from the root; empty where it cannot be told.
QUORVEX_API std::string directoryOfProgram();

} // namespace Quorvex::platform
