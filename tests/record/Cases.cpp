// Calls functions in the way that its argument names, so that record.sh can compare what is recorded of it. Headers of
// the standard library stay out: their functions would be recorded, too.

#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#if __cplusplus >= 202002L
#include <coroutine>
#endif

#define HIDDEN __attribute__((no_instrument_function))
#define APART __attribute__((noinline))

volatile int g_sink;
const char* g_program;

extern "C" {

APART void leaf() {
    g_sink = g_sink + 1;
}

__attribute__((constructor)) void early() {
    g_sink = g_sink + 1;
}

#ifdef OWN_LIBRARY
// What recording itself calls.
APART int clock_gettime(clockid_t clock, timespec* to) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, to));
}
APART void* malloc(size_t size) {
    extern void* __libc_malloc(size_t);
    return __libc_malloc(size);
}
#endif

APART void two() {
    leaf();
    leaf();
}

APART void last() {
    g_sink = g_sink + 1;
}

APART void handler(int) {
    g_sink = g_sink + 1;
}

APART void deep(int n) {
    if (n > 1)
        deep(n - 1);
    g_sink = g_sink + 1;
}

// Ways out.

jmp_buf g_back;
APART void jumps() {
    g_sink = g_sink + 1;
    longjmp(g_back, 1);
}
APART void jumpsDeeper() {
    jumps();
    g_sink = g_sink + 1;
}
APART void jump() {
    if (setjmp(g_back) == 0)
        jumpsDeeper();
    leaf();
}

APART void throws() {
    g_sink = g_sink + 1;
    throw 1;
}
APART void throwsDeeper() {
    throws();
    g_sink = g_sink + 1;
}
APART void catches() {
    try {
        throwsDeeper();
    } catch (int) {
        g_sink = g_sink + 1;
    }
    leaf();
}

APART int tail(int n) {
    g_sink = n;
    return n + 1;
}
APART int callsTail(int n) {
    return tail(n + 1);
}

// Threads.

pthread_key_t g_key;
APART void keyEnds(void*) {
    leaf();
}
APART void* thread(void*) {
    two();
    pthread_setspecific(g_key, &g_key);
    return nullptr;
}
APART void ends() {
    g_sink = g_sink + 1;
    pthread_exit(nullptr);
}
APART void* threadEnds(void*) {
    ends();
    return nullptr;
}
APART void waits() {
    for (;;)
        pause();
}
APART void* threadWaits(void*) {
    waits();
    return nullptr;
}
APART void exits() {
    g_sink = g_sink + 1;
    exit(0);
}
APART void* threadExits(void*) {
    exits();
    return nullptr;
}

HIDDEN void runThread(void* (*function)(void*), bool isCancelled = false) {
    pthread_t id;
    pthread_create(&id, nullptr, function, nullptr);
    if (isCancelled) {
        usleep(20'000);
        pthread_cancel(id);
    }
    pthread_join(id, nullptr);
}

// Processes.

APART void forks() {
    if (fork() == 0) {
        two();
        return;
    }
    wait(nullptr);
}
APART void vforks() {
    const pid_t child = vfork();
    if (child == 0) {
        leaf();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
}
APART void execs() {
    execl(g_program, g_program, "two", nullptr);
}
APART void killed() {
    leaf();
    raise(SIGKILL);
}

// Modules that come and go.

APART void plugin(const char* path, const char* name) {
    void* const module = dlopen(path, RTLD_NOW);
    if (!module) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
    void* const function = dlsym(module, name);
    reinterpret_cast<void (*)()>(function)();
    dlclose(module);
}

// Other stacks.

ucontext_t g_main, g_fiber;
APART void yields() {
    swapcontext(&g_fiber, &g_main);
    leaf();
}
APART void fiber() {
    yields();
}
APART void resumes() {
    swapcontext(&g_main, &g_fiber);
}

} // extern "C"

#if __cplusplus >= 202002L
// What a coroutine needs of its kind, which is not what is to be seen.
struct Task {
    struct promise_type {
        HIDDEN Task get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
        HIDDEN std::suspend_always initial_suspend() { return {}; }
        HIDDEN std::suspend_always final_suspend() noexcept { return {}; }
        HIDDEN void return_void() {}
        HIDDEN void unhandled_exception() {}
    };
    std::coroutine_handle<promise_type> handle;
};
APART Task coroutine() {
    leaf();
    co_await std::suspend_always();
    two();
}
extern "C" APART void runsCoroutine() {
    const Task task = coroutine();
    task.handle.resume();
    leaf();
    task.handle.resume();
    task.handle.destroy();
}
#endif

HIDDEN void interrupt(bool onItsOwnStack) {
    static char stack[0x10000];
    stack_t other{};
    other.ss_sp = stack;
    other.ss_size = sizeof stack;
    struct sigaction action {};
    action.sa_handler = handler;
    if (onItsOwnStack) {
        sigaltstack(&other, nullptr);
        action.sa_flags = SA_ONSTACK;
    }
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGALRM, &action, nullptr);
}

extern "C" APART void raises() {
    raise(SIGUSR1);
    leaf();
}

HIDDEN int main(int count, char** arguments) {
    const char* const what = count > 1 ? arguments[1] : "";
    g_program = arguments[0];
    const auto is = [what](const char* name) HIDDEN { return strcmp(what, name) == 0; };
    if (is("two"))
        two();
    if (is("deep"))
        deep(40'000);
    if (is("many") || is("manyKilled")) {
        for (int i = 0; i < 50'000; ++i)
            two();
        last();
        if (is("manyKilled"))
            raise(SIGKILL);
    }
    if (is("jump")) {
        jump();
        two();
    }
    if (is("catches")) {
        catches();
        two();
    }
    if (is("tail"))
        callsTail(1);
    if (is("atexit")) {
        atexit(two);
        leaf();
    }
    if (is("exits"))
        exits();
    if (is("_exit")) {
        two();
        _exit(0);
    }
    if (is("killed"))
        killed();
    if (is("abort")) {
        two();
        abort();
    }
    if (is("raises") || is("raisesOnItsOwnStack")) {
        interrupt(is("raisesOnItsOwnStack"));
        raises();
    }
    if (is("storm")) {
        interrupt(false);
        const itimerval often{{0, 200}, {0, 200}};
        setitimer(ITIMER_REAL, &often, nullptr);
        for (int i = 0; i < 50'000; ++i)
            two();
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
    }
    if (is("threads")) {
        pthread_key_create(&g_key, keyEnds);
        for (int i = 0; i < 3; ++i)
            runThread(thread);
    }
    if (is("threadEnds"))
        runThread(threadEnds);
    if (is("cancelled"))
        runThread(threadWaits, true);
    if (is("threadExits")) {
        leaf();
        runThread(threadExits);
    }
    if (is("forks"))
        forks();
    if (is("vforks"))
        vforks();
    if (is("execs"))
        execs();
    if (is("plugins")) {
        plugin(arguments[2], "one");
        plugin(arguments[3], "other");
        plugin(arguments[2], "one");
    }
    if (is("fiber")) {
        static char stack[0x20000];
        getcontext(&g_fiber);
        g_fiber.uc_stack.ss_sp = stack;
        g_fiber.uc_stack.ss_size = sizeof stack;
        g_fiber.uc_link = &g_main;
        makecontext(&g_fiber, fiber, 0);
        resumes();
        leaf();
        resumes();
    }
#if __cplusplus >= 202002L
    if (is("coroutine"))
        runsCoroutine();
#endif
    return 0;
}
