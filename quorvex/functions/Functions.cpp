/// The hooks that compilers call for -finstrument-functions. They record each call with the address of its function;
/// docs/record.md tells what becomes of calls that do not end as calls do, docs/format.md how addresses are resolved.

#include "quorvex/functions/CallFrames.h"
#include "quorvex/functions/ProcessFacts.h"
#include "quorvex/instrument/CallRecording.h"
#include "quorvex/platform/Interruption.h"
#include "quorvex/platform/System.h"

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#define QUORVEX_HOOK extern "C" __attribute__((visibility("default"), no_instrument_function))
/// One that is called all the time: all that it usually does is part of it.
#define QUORVEX_HOT_HOOK QUORVEX_HOOK __attribute__((flatten))

/// Where the first stack of the process begins, as the loader knows it.
extern "C" void* __libc_stack_end;

namespace Quorvex::detail {

namespace {

/// How often modules may have gone. Addresses may then be of others.
constinit std::atomic<std::uint32_t> g_unloads{0};

/// The process is none that is to be recorded. Known when the first thread begins.
constinit std::atomic<bool> g_isOther{false};

/// Whether QVX_TRACEPROCESS, if it is set, names another process than this one.
bool isOther() {
    const char* const process = std::getenv("QVX_TRACEPROCESS");
    return process && *process && std::strtoul(process, nullptr, 10) != static_cast<unsigned long>(getpid());
}

/// The bounds of the calling thread's stack.
CallFrames::Bounds stackOfThread() {
    if (platform::currentThreadId() == static_cast<unsigned>(getpid())) {
        // Not asked of the system, which would read a file. The stack grows as far as the limit of now lets it.
        constexpr std::uintptr_t kMost = std::uintptr_t{1} << 30;
        rlimit limit{};
        getrlimit(RLIMIT_STACK, &limit);
        const auto size = limit.rlim_cur < kMost ? static_cast<std::uintptr_t>(limit.rlim_cur) : kMost;
        const auto end = reinterpret_cast<std::uintptr_t>(__libc_stack_end) + 1;
        return {end > size ? end - size : 0, end};
    }
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return {};
    void* from = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &from, &size);
    pthread_attr_destroy(&attributes);
    const auto begin = reinterpret_cast<std::uintptr_t>(from);
    return {begin, begin + size};
}

/// What a thread needs while it is recorded.
struct Thread {
    /// A hook within a hook is that of a signal handler, which may be recorded; or what a hook calls is recorded
    /// itself, as a clock that the program has replaced. The latter would not end.
    static constexpr unsigned kMostInside = 2;
    unsigned inside = 0;
    unsigned depth = ~0U;      ///< calls within so many are not recorded
    std::uint32_t unloads = 0; ///< as they were when `pages` was begun
    /// The pages of code whose module is told, each at a place that follows from its number.
    static constexpr unsigned kPages = 512, kPageBits = 12;
    std::uintptr_t pages[kPages] = {};
    facts::ThreadName name;
    CallFrames frames;
};

/// Plain memory, and where the thread's own begins: reading it calls nothing.
[[gnu::tls_model("initial-exec")]] constinit thread_local Thread* t_thread = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local bool t_beginning = false;

std::uint32_t idOf(std::uintptr_t address) {
    return static_cast<std::uint32_t>(address);
}

} // namespace

/// What the hooks do.
class CallHooks {
public:
    static void enter(const CallFrames::Call& call) {
        Thread* const thread = t_thread ? t_thread : begin();
        if (!thread || isTooDeep(*thread)) [[unlikely]]
            return;
        const Inside inside(*thread);
        const auto address = reinterpret_cast<std::uintptr_t>(call.function);
        knowModule(*thread, address);
        const unsigned within = thread->frames.enter(call, Left{thread->depth});
        if (within < thread->depth)
            record<tagTCode::FunctionEnter>(address);
    }

    static void leave(const void* function, std::uintptr_t frame, const void* site) {
        Thread* const thread = t_thread;
        if (!thread || isTooDeep(*thread)) [[unlikely]]
            return;
        const Inside inside(*thread);
        if (thread->frames.leave(function, frame, site, Left{thread->depth}) < thread->depth)
            record<tagTCode::FunctionLeave>(reinterpret_cast<std::uintptr_t>(function));
    }

private:
    static bool isTooDeep(const Thread& thread) {
        return thread.inside != 0 && (thread.inside >= Thread::kMostInside || platform::uninterruptedHere() != 0);
    }
    class Inside {
    public:
        explicit Inside(Thread& thread) : m_thread(thread) {
            ++m_thread.inside;
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;
        ~Inside() {
            std::atomic_signal_fence(std::memory_order_seq_cst);
            --m_thread.inside;
        }

    private:
        Thread& m_thread;
    };

    /// Records the end of a call that ended without a word.
    struct Left {
        unsigned depth;
        [[gnu::noinline, gnu::cold]] void operator()(const void* function, unsigned within) const {
            if (within < depth)
                record<tagTCode::FunctionLeave>(reinterpret_cast<std::uintptr_t>(function));
        }
    };

    template <tagTCode Code> static void record(std::uintptr_t address) {
        if (CQVXInstrumentingStream* const stream = CQVXInstrumentingStream::ofThread())
            stream->recordCall<Code>(idOf(address), address);
    }

    /// Has the module told that an address is in.
    static void knowModule(Thread& thread, std::uintptr_t address) {
        const std::uintptr_t page = address >> Thread::kPageBits;
        if (thread.pages[page % Thread::kPages] != page || thread.unloads != g_unloads.load(std::memory_order_relaxed))
            [[unlikely]]
            tellModules(thread, page);
    }

    [[gnu::noinline, gnu::cold]] static void tellModules(Thread& thread, std::uintptr_t page) {
        const platform::Uninterrupted quiet;
        if (!thread.name.isTold) {
            facts::begin();
            facts::tellThread(thread.name);
        }
        const std::uint32_t unloads = g_unloads.load(std::memory_order_acquire);
        if (thread.unloads != unloads) {
            for (std::uintptr_t& known : thread.pages)
                known = 0;
            thread.unloads = unloads;
        }
        if (facts::tellModules())
            thread.pages[page % Thread::kPages] = page;
    }

    /// Begins to record the calling thread; null where it is not to be recorded, or not now.
    [[gnu::noinline, gnu::cold]] static Thread* begin();
    static void ended(void* thread);
    static void afterForkInChild();
};

namespace {

/// Made before that of the streams, so that the last calls of a thread are recorded before its stream is completed.
struct Key {
    pthread_key_t key{};
    bool isMade = false;
    explicit Key(void (*ended)(void*)) : isMade(pthread_key_create(&key, ended) == 0) {}
};

} // namespace

Thread* CallHooks::begin() {
    if (t_beginning || g_isOther.load(std::memory_order_relaxed) || platform::uninterruptedHere() != 0)
        return nullptr;
    if (isOther()) {
        g_isOther = true;
        return nullptr;
    }
    t_beginning = true;
    Thread* thread = nullptr;
    static const Key key(ended);
    if (CQVXInstrumentingStream::get_Instance()) {
        const platform::Uninterrupted quiet;
        if (void* const memory = platform::allocatePages(sizeof(Thread))) {
            static const bool isForkWatched = (platform::onFork(nullptr, nullptr, afterForkInChild), true);
            static_cast<void>(isForkWatched);
            thread = new (memory) Thread;
            thread->frames.stackIs(stackOfThread());
            if (const char* const depth = std::getenv("QVX_TRACEDEPTH"); depth && *depth)
                thread->depth = static_cast<unsigned>(std::strtoul(depth, nullptr, 10));
            if (key.isMade)
                pthread_setspecific(key.key, thread);
            t_thread = thread;
        }
    }
    t_beginning = false;
    return thread;
}

void CallHooks::ended(void* memory) {
    auto* const thread = static_cast<Thread*>(memory);
    // A later thread may get this one's number, and go on in its trace.
    thread->frames.leaveAll(Left{thread->depth});
    facts::tellThread(thread->name);
    const platform::Uninterrupted quiet;
    t_thread = nullptr;
    platform::freePages(thread, sizeof(Thread));
}

void CallHooks::afterForkInChild() {
    // What is open was entered in the parent, and ends there. The rest is told with the first call.
    if (!t_thread)
        return;
    g_isOther = isOther();
    t_thread->frames.clear();
    t_thread->name = {};
    for (std::uintptr_t& known : t_thread->pages)
        known = 0;
    if (g_isOther)
        t_thread = nullptr;
}

} // namespace Quorvex::detail

QUORVEX_HOT_HOOK void __cyg_profile_func_enter(void* function, void* site) {
    Quorvex::detail::CallHooks::enter(
        {function, reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)), site, __builtin_return_address(0)});
}

QUORVEX_HOT_HOOK void __cyg_profile_func_exit(void* function, void* site) {
    Quorvex::detail::CallHooks::leave(function, reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)), site);
}

/// Modules must be known before they go, and that they have gone before another one stands in their place.
QUORVEX_HOOK int dlclose(void* module) {
    static const auto next = reinterpret_cast<int (*)(void*)>(dlsym(RTLD_NEXT, "dlclose"));
    using namespace Quorvex::detail;
    facts::tellModules();
    const int result = next ? next(module) : -1;
    facts::tellModules();
    g_unloads.fetch_add(1, std::memory_order_release);
    return result;
}
