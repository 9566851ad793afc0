#include "tests/support/System.h"

#include <fcntl.h>
#include <filesystem>
#include <io.h>
#include <process.h>
#include <stdlib.h>
#include <sys/stat.h>

namespace Quorvex::test {

namespace {
constexpr int kStandardOutput = 1;
} // namespace

int run(const std::string& directory, const std::vector<std::pair<std::string, std::string>>& environment,
        const char* program, const std::string& argument) {
    // A program starts with the directory, the variables and the output of the one that starts it. They are left as
    // this run needs them, but for the directory and the output.
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory);
    for (const auto& [name, value] : environment)
        _putenv_s(name.c_str(), value.c_str());
    const int output = _dup(kStandardOutput);
    const int told = _open("told", _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, _S_IREAD | _S_IWRITE);
    _dup2(told, kStandardOutput);
    _close(told);
    const char* const arguments[] = {program, argument.c_str(), nullptr};
    const auto status = _spawnv(_P_WAIT, program, arguments);
    _dup2(output, kStandardOutput);
    _close(output);
    std::filesystem::current_path(before);
    return static_cast<int>(status);
}

bool hasShell() {
    return false;
}

bool hasFullDevice() {
    return false;
}

bool canFork() {
    return false;
}

int fork(const std::function<void()>&, const std::function<void()>&) {
    return -1;
}

ATL::CComPtr<IStream> systemStream() {
    ATL::CComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    return stream;
}

} // namespace Quorvex::test
