#include "tests/support/System.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__linux__)
#include <sys/mount.h>
#include <sys/prctl.h>
#include <ucontext.h>
#endif

namespace Quorvex::test {

namespace {

[[noreturn]] void become(const Program& program) {
#if defined(__linux__)
    prctl(PR_SET_PDEATHSIG, SIGKILL); // one that records until it is killed must not outlive a test that is ended
#endif
    const int told = chdir(program.directory.c_str()) == 0 ? creat("told", 0600) : -1;
    if (told < 0 || dup2(told, STDOUT_FILENO) < 0)
        _exit(126);
    for (const auto& [name, value] : program.environment)
        setenv(name.c_str(), value.c_str(), 1);
    Quorvex::test::become(program.path, program.arguments);
    _exit(127);
}

} // namespace

int run(const Program& program) {
    return fork([&program] { become(program); }, [] {});
}

bool runAndKill(const Program& program, const std::function<bool()>& enough) {
    const pid_t child = ::fork();
    if (child == 0)
        become(program);
    int status = 0;
    while (!enough()) {
        if (waitpid(child, &status, WNOHANG) != 0)
            return false;
    }
    kill(child, SIGKILL);
    return waitpid(child, &status, 0) == child && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

bool limitSpace(const std::string& directory, std::uint64_t bytes) {
#if defined(__linux__)
    // A small file system that only this process sees. Where that is not allowed, files are kept from growing.
    const std::string size = "size=" + std::to_string(bytes);
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tmpfs", directory.c_str(), "tmpfs", 0, size.c_str()) == 0)
        return true;
#endif
    std::signal(SIGXFSZ, SIG_IGN);
    return limitFiles(bytes);
}

bool limitFiles(std::uint64_t bytes) {
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0)
        return false;
    limit.rlim_cur = std::min(static_cast<rlim_t>(bytes), limit.rlim_max);
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

bool tellNobody(bool isFull) {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0 || close(ends[1]) != 0)
        return false;
    if (!isFull)
        return close(ends[0]) == 0;
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    while (write(STDERR_FILENO, ".", 1) == 1) {
    }
    return fcntl(STDERR_FILENO, F_SETFL, 0) == 0;
}

bool isPosix() {
    return true;
}

bool hasFullDevice() {
    return access("/dev/full", W_OK) == 0;
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

bool endsThread(void (*step)(void (*end)())) {
    pthread_t thread;
    const auto run = [](void* called) -> void* {
        (*static_cast<decltype(step)*>(called))([] { pthread_exit(PTHREAD_CANCELED); });
        return nullptr;
    };
    void* result = nullptr;
    return pthread_create(&thread, nullptr, run, &step) == 0 && pthread_join(thread, &result) == 0 &&
           result == PTHREAD_CANCELED;
}

bool atThreadEnd(void (*step)()) {
    // The destructors of keys come in the order in which the keys were made.
    static void (*called)() = nullptr;
    called = step;
    pthread_key_t key;
    return pthread_key_create(&key, [](void*) { called(); }) == 0 && pthread_setspecific(key, &called) == 0;
}

void become(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> all{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments)
        all.push_back(const_cast<char*>(argument.c_str()));
    all.push_back(nullptr);
    execv(all[0], all.data());
}

bool runCancelled(const std::function<void()>& work, const std::function<bool()>& started) {
    pthread_t thread;
    const auto run = [](void* function) -> void* {
        (*static_cast<const std::function<void()>*>(function))();
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, run, const_cast<std::function<void()>*>(&work)) != 0)
        return false;
    while (!started())
        sched_yield();
    void* result = nullptr;
    return pthread_cancel(thread) == 0 && pthread_join(thread, &result) == 0 && result == PTHREAD_CANCELED;
}

namespace {

void (*g_handler)() = nullptr;

void handleAlarm(void (*handler)()) {
    if (handler)
        g_handler = handler;
    struct sigaction action {};
    action.sa_handler = [](int) { g_handler(); };
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
}

} // namespace

bool interruptEvery(unsigned microseconds, void (*handler)()) {
    handleAlarm(handler);
    const suseconds_t period = handler ? static_cast<suseconds_t>(microseconds) : 0;
    const itimerval timer{{0, period}, {0, period}};
    return setitimer(ITIMER_REAL, &timer, nullptr) == 0;
}

bool interruptForks(void (*handler)()) {
    handleAlarm(handler);
    return pthread_atfork([] { raise(SIGALRM); }, nullptr, nullptr) == 0;
}

#if defined(__linux__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)

namespace {

unsigned g_stepsLeft = 0;
constexpr long long kTrapFlag = 0x100;

/// Comes behind each instruction while the flag is set.
void countStep(int, siginfo_t*, void* context) {
    if (--g_stepsLeft > 0)
        return;
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
    g_handler();
}

} // namespace

bool interruptAt(unsigned n, const std::function<void()>& work, void (*handler)(), bool& came) {
    g_stepsLeft = n;
    g_handler = handler;
    struct sigaction action {};
    action.sa_sigaction = countStep;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, nullptr);
    asm volatile("pushfq; orq $0x100, (%%rsp); popfq" : : : "memory", "cc");
    work();
    asm volatile("pushfq; andq $~0x100, (%%rsp); popfq" : : : "memory", "cc");
    came = g_stepsLeft == 0;
    std::signal(SIGTRAP, SIG_DFL);
    return true;
}

#else

bool interruptAt(unsigned, const std::function<void()>&, void (*)(), bool&) {
    return false;
}

#endif

bool limitOpenFiles(unsigned count) {
    const rlimit limit{count, count};
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

bool closeFiles() {
    for (int file = STDERR_FILENO + 1; file < 1024; ++file)
        close(file);
    return true;
}

std::size_t openFiles() {
    std::error_code none;
    const auto files = std::filesystem::directory_iterator("/proc/self/fd", none);
    return none ? 0 : static_cast<std::size_t>(std::distance(begin(files), end(files))) - 1; // but for this look itself
}

std::size_t memoryInUse() {
    std::size_t all = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

ATL::CComPtr<IStream> systemStream() {
    return nullptr;
}

} // namespace Quorvex::test
