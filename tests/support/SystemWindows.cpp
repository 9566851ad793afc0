#include "tests/support/System.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <io.h>
#include <process.h>
#include <stdlib.h>
#include <sys/stat.h>

namespace Quorvex::test {

namespace {

constexpr int kStandardOutput = 1;

/// Sets variables, and puts those that there were in their place; an empty one is as good as none.
void exchange(std::vector<std::pair<std::string, std::string>>& variables) {
    for (auto& [name, value] : variables) {
        const char* const found = std::getenv(name.c_str());
        const std::string before = found ? found : "";
        _putenv_s(name.c_str(), value.c_str());
        value = before;
    }
}

/// The result of _spawnv. A program starts with the directory, the variables and the output of the one that starts it.
std::intptr_t start(const Program& program, int mode) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(program.directory);
    auto variables = program.environment;
    exchange(variables);
    const int output = _dup(kStandardOutput);
    const int told = _open("told", _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
    _dup2(told, kStandardOutput);
    _close(told);
    std::vector<const char*> arguments{program.path.c_str()};
    for (const std::string& argument : program.arguments)
        arguments.push_back(argument.c_str());
    arguments.push_back(nullptr);
    // Once in some thousand times Wine fails with an internal error; it does not twice.
    std::intptr_t result = -1;
    for (unsigned attempt = 0; result == -1 && attempt < 3; ++attempt)
        result = _spawnv(mode, arguments[0], arguments.data());
    _dup2(output, kStandardOutput);
    _close(output);
    // In reverse order, because a variable may be there twice.
    std::ranges::reverse(variables);
    exchange(variables);
    std::filesystem::current_path(before);
    return result;
}

} // namespace

int run(const Program& program) {
    return static_cast<int>(start(program, _P_WAIT));
}

bool runAndKill(const Program& program, const std::function<bool()>& enough) {
    const auto process = reinterpret_cast<HANDLE>(start(program, _P_NOWAIT));
    bool running = process != INVALID_HANDLE_VALUE;
    while (running && !enough())
        running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    running = running && TerminateProcess(process, 1) && WaitForSingleObject(process, INFINITE) == WAIT_OBJECT_0;
    CloseHandle(process);
    return running;
}

bool limitSpace(const std::string&, std::uint64_t) {
    return false;
}

bool isPosix() {
    return false;
}

bool hasFullDevice() {
    return false;
}

int fork(const std::function<void()>&, const std::function<void()>&) {
    return -1;
}

bool endsThread(void (*)(void (*)())) {
    return true;
}

void become(const std::string&, const std::vector<std::string>&) {}

bool runCancelled(const std::function<void()>&, const std::function<bool()>&) {
    return false;
}

bool interruptEvery(unsigned, void (*)()) {
    return false;
}

bool atThreadEnd(void (*)()) {
    return false;
}

bool limitFiles(std::uint64_t) {
    return false;
}

bool tellNobody(bool) {
    return false;
}

bool interruptForks(void (*)()) {
    return false;
}

bool interruptAt(unsigned, const std::function<void()>&, void (*)(), bool&) {
    return false;
}

bool limitOpenFiles(unsigned) {
    return false;
}

bool closeFiles() {
    return false;
}

std::size_t openFiles() {
    return 0;
}

std::size_t memoryInUse() {
    return 0;
}

ATL::CComPtr<IStream> systemStream() {
    ATL::CComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    return stream;
}

} // namespace Quorvex::test
