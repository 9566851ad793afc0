#include "tests/support/System.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Quorvex::test {

int run(const std::string& directory, const std::vector<std::pair<std::string, std::string>>& environment,
        const char* program, const std::string& argument) {
    const auto start = [&] {
        const int told = chdir(directory.c_str()) == 0 ? creat("told", 0600) : -1;
        if (told < 0 || dup2(told, STDOUT_FILENO) < 0)
            _exit(126);
        for (const auto& [name, value] : environment)
            setenv(name.c_str(), value.c_str(), 1);
        execl(program, program, argument.c_str(), nullptr);
        _exit(127);
    };
    return fork(start, [] {});
}

bool hasShell() {
    return true;
}

bool hasFullDevice() {
    return access("/dev/full", W_OK) == 0;
}

bool canFork() {
    return true;
}

int fork(const std::function<void()>& inChild, const std::function<void()>& inParent) {
    const pid_t child = ::fork();
    if (child == 0) {
        inChild();
        _exit(125);
    }
    inParent();
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ATL::CComPtr<IStream> systemStream() {
    return nullptr;
}

} // namespace Quorvex::test
