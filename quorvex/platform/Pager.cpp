#include "quorvex/platform/Pager.h"

#ifdef _WIN32

namespace Quorvex::platform {

Pager::~Pager() = default;

bool Pager::start(const std::string&) {
    return false;
}

} // namespace Quorvex::platform

#else

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Quorvex::platform {

namespace {

void waitFor(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

Pager::~Pager() {
    if (m_process == 0)
        return;
    close(STDOUT_FILENO);
    // What interrupts this program is meant for the pager, which decides when it is over.
    signal(SIGINT, SIG_IGN);
    waitFor(static_cast<pid_t>(m_process));
}

bool Pager::start(const std::string& command) {
    int ends[2];
    if (pipe(ends) != 0)
        return false;
    const pid_t process = fork();
    if (process == 0) {
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        close(ends[1]);
        setenv("LESS", "FRX", 0);
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ends[0]);
    const bool isStarted = process > 0 && dup2(ends[1], STDOUT_FILENO) >= 0;
    close(ends[1]);
    if (isStarted)
        m_process = process;
    else if (process > 0)
        waitFor(process); // it has nothing to read
    return isStarted;
}

} // namespace Quorvex::platform

#endif
