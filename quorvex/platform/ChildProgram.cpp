#include "quorvex/platform/ChildProgram.h"

#ifdef _WIN32

#include <cerrno>

namespace Quorvex::platform {

int ChildProgram::start(const std::vector<std::string>&, const Variables&, const std::string&) {
    return ENOSYS;
}

int ChildProgram::wait(bool) {
    return 1;
}

std::string directoryOfProgram() {
    return {};
}

} // namespace Quorvex::platform

#else

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

namespace Quorvex::platform {

namespace {

constexpr std::array kHandedOn = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2, SIGCONT, SIGTSTP};

constinit std::atomic<pid_t> g_process{0};

void handOn(int signal, siginfo_t* info, void*) {
    const int error = errno;
    // The terminal tells all of its processes.
    const bool isFromTerminal = info->si_code > 0;
    if (const pid_t process = g_process; process > 0 && !isFromTerminal)
        kill(process, signal);
    errno = error;
}

} // namespace

int ChildProgram::start(const std::vector<std::string>& arguments, const Variables& variables,
                        const std::string& variableOfProcess) {
    int ends[2]; // closed when the program is started; else an error number comes
    if (pipe(ends) != 0)
        return errno;
    fcntl(ends[1], F_SETFD, FD_CLOEXEC);
#if defined(__linux__)
    prctl(PR_SET_CHILD_SUBREAPER, 1);
#endif
    // What is blocked until there is somebody to hand it on to comes then.
    sigset_t handedOn, before;
    sigemptyset(&handedOn);
    for (const int signal : kHandedOn)
        sigaddset(&handedOn, signal);
    sigprocmask(SIG_BLOCK, &handedOn, &before);
    const pid_t process = fork();
    if (process == 0) {
        close(ends[0]);
        for (const int signal : kHandedOn)
            ::signal(signal, SIG_DFL);
        ::signal(SIGPIPE, SIG_DFL);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        for (const auto& [name, value] : variables)
            setenv(name.c_str(), value.c_str(), 1);
        if (!variableOfProcess.empty())
            setenv(variableOfProcess.c_str(), std::to_string(getpid()).c_str(), 1);
        std::vector<char*> words;
        words.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments)
            words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        execvp(words[0], words.data());
        const int error = errno;
        [[maybe_unused]] const auto written = write(ends[1], &error, sizeof error);
        _exit(127);
    }
    int error = process < 0 ? errno : 0;
    close(ends[1]);
    if (process > 0) {
        g_process = process;
        struct sigaction action {};
        action.sa_sigaction = handOn;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        for (const int signal : kHandedOn) {
            struct sigaction old {};
            // What was ignored stays so, and is for the program, which inherits that.
            if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
                sigaction(signal, &action, nullptr);
        }
        int theirs = 0;
        if (read(ends[0], &theirs, sizeof theirs) == sizeof theirs) {
            error = theirs;
            waitpid(process, nullptr, 0);
        }
    }
    close(ends[0]);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    m_process = error == 0 ? process : 0;
    return error;
}

int ChildProgram::wait(bool andAll) {
    constexpr int kSignalled = 128;
    int exitCode = 1;
    for (bool isThere = true; isThere;) {
        int status = 0;
        const pid_t ended = waitpid(andAll ? -1 : static_cast<pid_t>(m_process), &status, 0);
        if (ended == static_cast<pid_t>(m_process)) {
            g_process = 0;
            exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
        }
        isThere = ended > 0 ? andAll : errno == EINTR;
    }
    return exitCode;
}

std::string directoryOfProgram() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return program.substr(0, program.rfind('/') + 1);
}

} // namespace Quorvex::platform

#endif
