#pragma once

/// What a program tells of itself while it runs: functions and scopes, counters, events, messages, names, and where its
/// threads wait. For C++ (from C++20) and C (from C11); it includes next to nothing. Each thread records to a trace of
/// its own; `quorvex/instrument/InstrumentingStream.h` tells where, and what happens at the edges of a program's life.
///
///     QUORVEX_TRACE_FUNCTION();                     the enclosing function, under its own name
///     QUORVEX_TRACE_SCOPE("sort");                  what is left of the enclosing block
///     QUORVEX_TRACE_COUNTER("load", "%", load);     a value: a whole number or a double; the unit may be ""
///     QUORVEX_TRACE_EVENT("retry");                 something that happens
///     QUORVEX_TRACE_EVENT_DATA("key", &key, sizeof key);   the same with up to 64 bytes; of more, the first
///     QUORVEX_TRACE_MESSAGE(text);                  a text of the program, of any length below 256 KiB
///     QUORVEX_TRACE_THREAD(name);                   what the thread is called from now on
///     QUORVEX_TRACE_PROCESS(name);                  the same of the process
///     QUORVEX_TRACE_WAIT("data", ready, wait);      `wait` where `ready` is false, as the function "wait for data"
///     QUORVEX_LOCK(mutex);                          C++: holds a mutex for the rest of the block, and shows its waits
///     QUORVEX_LOCK_SHARED(mutex);                   C++: the same with others that share it
///
/// Names in double quotes, and units, must be literals, or it does not compile. What has one name is one function,
/// counter or event, wherever it stands. The macros are statements, and stand wherever those may, several in a line,
/// and in C++ also as what an `if` consists of or begins with, and in constexpr functions, which record when they run.
/// (In C, those of scopes are declarations.)
///
/// A wait is a call of a function "wait for NAME", and only where there was one: a mutex that is free is taken without
/// a word. So `qvx stats --name 'wait for *' --by thread` tells who waits for how long, and
/// `qvx graph --callers 'wait for *'` where.
///
/// Compiled with QUORVEX_NO_TRACE nothing is left of all this but locking and waiting, and no value is computed. Where
/// nothing is recorded at run time (QVX_TRACEMODE=off, quorvex_set_recording(0), no stream), each takes a few
/// nanoseconds. Signal handlers, static objects and threads of all sorts may record; nothing is thrown, and what the
/// program knows as errno stays.

#include "quorvex/platform/Export.h"

#include <stddef.h>
#include <stdint.h>

/// Functions of this header are not recorded themselves where compilers put hooks into all others. (Of a lambda, Clang
/// does not take the word for that; there -finstrument-functions-after-inlining leaves it out.)
#if defined(__GNUC__)
#define QUORVEX_UNHOOKED __attribute__((no_instrument_function))
#else
#define QUORVEX_UNHOOKED
#endif

#if defined(__cplusplus)
#define QUORVEX_NOEXCEPT noexcept
extern "C" {
#else
#define QUORVEX_NOEXCEPT
#endif

/// A place in the program that records. Static memory, 0 at first; it gets a number when it is first recorded. Several
/// threads may use one.
typedef unsigned quorvex_site;

/// Whether what follows records anything, in the whole process; at first it does. What was entered is left all the
/// same.
QUORVEX_API void quorvex_set_recording(int on) QUORVEX_NOEXCEPT;

// The names that sites are given are copied when a thread records one for the first time, and must be the same later.

/// Enters a function. What to give quorvex_leave(); 0 where nothing is recorded.
QUORVEX_API unsigned quorvex_enter(quorvex_site* site, const char* name) QUORVEX_NOEXCEPT;
QUORVEX_API void quorvex_leave(unsigned entered) QUORVEX_NOEXCEPT; ///< the counterpart; nothing for 0

/// Values of a counter; of one site always by the same of the two. The unit may be empty.
QUORVEX_API void quorvex_count(quorvex_site* site, const char* name, const char* unit, int64_t value) QUORVEX_NOEXCEPT;
QUORVEX_API void quorvex_count_double(quorvex_site* site, const char* name, const char* unit,
                                      double value) QUORVEX_NOEXCEPT;

/// An event, with up to 64 bytes of data; of more, the first.
QUORVEX_API void quorvex_event(quorvex_site* site, const char* name, const void* data, size_t size) QUORVEX_NOEXCEPT;

/// A text. The level is 0 for what the program has to say, 64 for debugging, -64 for errors, or between.
QUORVEX_API void quorvex_message(int level, const char* text) QUORVEX_NOEXCEPT;

/// What the calling thread, or the process, is called from now on; some 200 bytes are kept.
QUORVEX_API void quorvex_name_thread(const char* name) QUORVEX_NOEXCEPT;
QUORVEX_API void quorvex_name_process(const char* name) QUORVEX_NOEXCEPT;

#if defined(__cplusplus)
} // extern "C"

namespace Quorvex {

/// A call of a function, as long as it lives. `site` is what a macro makes for each place: it returns the
/// quorvex_site there. Nothing at compile time.
class RecordedScope {
public:
    /// Enters the function of that name.
    template <class Site> QUORVEX_UNHOOKED constexpr RecordedScope(Site site, const char* name) {
        if (!__builtin_is_constant_evaluated())
            m_entered = quorvex_enter(&site(), name);
    }
    RecordedScope(const RecordedScope&) = delete;
    RecordedScope& operator=(const RecordedScope&) = delete;
    QUORVEX_UNHOOKED constexpr ~RecordedScope() {
        if (m_entered != 0)
            quorvex_leave(m_entered);
    }

private:
    unsigned m_entered = 0;
};

/// The side of a mutex that is shared, as something to lock.
template <class Mutex> class SharedSide {
public:
    /// The mutex must outlive it.
    QUORVEX_UNHOOKED explicit SharedSide(Mutex& mutex) : m_mutex(mutex) {}
    QUORVEX_UNHOOKED bool try_lock() { return m_mutex.try_lock_shared(); } ///< whether it is held now
    QUORVEX_UNHOOKED void lock() { m_mutex.lock_shared(); }                ///< waits for it
    QUORVEX_UNHOOKED void unlock() { m_mutex.unlock_shared(); }            ///< gives it back

private:
    Mutex& m_mutex;
};

/// Holds a mutex as long as it lives; where it has to wait for it, that is a call of a function. A Mutex is one of the
/// standard library, a reference to one, or what has try_lock(), lock() and unlock(). Throws what lock() throws.
template <class Mutex> class RecordedLock {
public:
    /// Takes the mutex; a wait for it is a call of the function of that name.
    template <class Site> QUORVEX_UNHOOKED RecordedLock(Mutex&& mutex, Site site, const char* name) : m_mutex(mutex) {
        if (!m_mutex.try_lock()) {
            const RecordedScope wait(site, name);
            m_mutex.lock();
        }
    }
    QUORVEX_UNHOOKED explicit RecordedLock(Mutex&& mutex) : m_mutex(mutex) { m_mutex.lock(); } ///< without a word
    RecordedLock(const RecordedLock&) = delete;
    RecordedLock& operator=(const RecordedLock&) = delete;
    QUORVEX_UNHOOKED ~RecordedLock() { m_mutex.unlock(); }

private:
    Mutex m_mutex;
};
template <class Mutex, class... More> RecordedLock(Mutex&&, More...) -> RecordedLock<Mutex>;

namespace detail {

template <class Site, class Value>
QUORVEX_UNHOOKED constexpr void count(Site site, const char* name, const char* unit, const Value& value) {
    if (__builtin_is_constant_evaluated())
        return;
    if constexpr (requires { value % 1; })
        quorvex_count(&site(), name, unit, static_cast<int64_t>(value));
    else
        quorvex_count_double(&site(), name, unit, static_cast<double>(value));
}

template <class Site>
QUORVEX_UNHOOKED constexpr void event(Site site, const char* name, const void* data = nullptr, size_t size = 0) {
    if (!__builtin_is_constant_evaluated())
        quorvex_event(&site(), name, data, size);
}

/// Calls one of the functions above, when it runs.
template <class... Of> QUORVEX_UNHOOKED constexpr void tell(void (*how)(Of...) noexcept, Of... what) {
    if (!__builtin_is_constant_evaluated())
        how(what...);
}

} // namespace detail
} // namespace Quorvex
#endif

#undef QUORVEX_NOEXCEPT

#define QUORVEX_JOIN_2(a, b) a##b
#define QUORVEX_JOIN(a, b) QUORVEX_JOIN_2(a, b)
#define QUORVEX_UNIQUE(name) QUORVEX_JOIN(name, __COUNTER__)

#if defined(QUORVEX_NO_TRACE)

#if defined(__cplusplus)
#define QUORVEX_UNUSED(value) static_cast<void>(value)
#else
#define QUORVEX_UNUSED(value) ((void)(value))
#endif
#define QUORVEX_TRACE_FUNCTION() QUORVEX_UNUSED(0)
#define QUORVEX_TRACE_SCOPE(name) QUORVEX_UNUSED(0)
#define QUORVEX_TRACE_COUNTER(name, unit, value) QUORVEX_UNUSED(sizeof(value))
#define QUORVEX_TRACE_EVENT(name) QUORVEX_UNUSED(0)
#define QUORVEX_TRACE_EVENT_DATA(name, data, size) QUORVEX_UNUSED(sizeof(data) + sizeof(size))
#define QUORVEX_TRACE_MESSAGE(text) QUORVEX_UNUSED(sizeof(text))
#define QUORVEX_TRACE_THREAD(name) QUORVEX_UNUSED(sizeof(name))
#define QUORVEX_TRACE_PROCESS(name) QUORVEX_UNUSED(sizeof(name))
#define QUORVEX_LOCK(mutex) const ::Quorvex::RecordedLock QUORVEX_UNIQUE(quorvex_lock_)(mutex)
#define QUORVEX_LOCK_SHARED(mutex)                                                                                     \
    const ::Quorvex::RecordedLock QUORVEX_UNIQUE(quorvex_lock_)(::Quorvex::SharedSide{mutex})

#elif defined(__cplusplus)

#define QUORVEX_SITE                                                                                                   \
    []() QUORVEX_UNHOOKED -> quorvex_site& {                                                                           \
        static constinit quorvex_site quorvex_here = 0;                                                                \
        return quorvex_here;                                                                                           \
    }
#define QUORVEX_SCOPE_NAMED(name) const ::Quorvex::RecordedScope QUORVEX_UNIQUE(quorvex_scope_)(QUORVEX_SITE, name)
#define QUORVEX_TRACE_FUNCTION() QUORVEX_SCOPE_NAMED(__func__)
#define QUORVEX_TRACE_SCOPE(name) QUORVEX_SCOPE_NAMED("" name)
#define QUORVEX_TRACE_COUNTER(name, unit, value) ::Quorvex::detail::count(QUORVEX_SITE, "" name, "" unit, value)
#define QUORVEX_TRACE_EVENT(name) ::Quorvex::detail::event(QUORVEX_SITE, "" name)
#define QUORVEX_TRACE_EVENT_DATA(name, data, size) ::Quorvex::detail::event(QUORVEX_SITE, "" name, data, size)
#define QUORVEX_TRACE_MESSAGE(text) ::Quorvex::detail::tell<int, const char*>(quorvex_message, 0, text)
#define QUORVEX_TRACE_THREAD(name) ::Quorvex::detail::tell<const char*>(quorvex_name_thread, name)
#define QUORVEX_TRACE_PROCESS(name) ::Quorvex::detail::tell<const char*>(quorvex_name_process, name)
#define QUORVEX_LOCK_NAMED(mutex, name)                                                                                \
    const ::Quorvex::RecordedLock QUORVEX_UNIQUE(quorvex_lock_)(mutex, QUORVEX_SITE, "wait for " name)
#define QUORVEX_LOCK(mutex) QUORVEX_LOCK_NAMED(mutex, #mutex)
#define QUORVEX_LOCK_SHARED(mutex) QUORVEX_LOCK_NAMED(::Quorvex::SharedSide{mutex}, #mutex)

#else

#define QUORVEX_AT_SITE(call, ...)                                                                                     \
    do {                                                                                                               \
        static quorvex_site quorvex_here;                                                                              \
        call(&quorvex_here, __VA_ARGS__);                                                                              \
    } while (0)
#define QUORVEX_TRACE_COUNTER(name, unit, value)                                                                       \
    QUORVEX_AT_SITE(_Generic((value), float                                                                            \
                             : quorvex_count_double, double                                                            \
                             : quorvex_count_double, default                                                           \
                             : quorvex_count),                                                                         \
                    "" name, "" unit, value)
#define QUORVEX_TRACE_EVENT(name) QUORVEX_TRACE_EVENT_DATA(name, NULL, 0)
#define QUORVEX_TRACE_EVENT_DATA(name, data, size) QUORVEX_AT_SITE(quorvex_event, "" name, data, size)
#define QUORVEX_TRACE_MESSAGE(text) quorvex_message(0, text)
#define QUORVEX_TRACE_THREAD(name) quorvex_name_thread(name)
#define QUORVEX_TRACE_PROCESS(name) quorvex_name_process(name)

#if defined(__GNUC__)
QUORVEX_UNHOOKED static inline void quorvex_leave_scope(const unsigned* entered) {
    quorvex_leave(*entered);
}
#define QUORVEX_SCOPE_AT(site, scope, name)                                                                            \
    static quorvex_site site;                                                                                          \
    __attribute__((cleanup(quorvex_leave_scope), unused)) const unsigned scope = quorvex_enter(&site, name)
#define QUORVEX_SCOPE_NAMED(name, number)                                                                              \
    QUORVEX_SCOPE_AT(QUORVEX_JOIN(quorvex_site_, number), QUORVEX_JOIN(quorvex_scope_, number), name)
#define QUORVEX_TRACE_FUNCTION() QUORVEX_SCOPE_NAMED(__func__, __COUNTER__)
#define QUORVEX_TRACE_SCOPE(name) QUORVEX_SCOPE_NAMED("" name, __COUNTER__)
#endif

#endif

#if defined(__cplusplus) || defined(QUORVEX_NO_TRACE)
#define QUORVEX_TRACE_WAIT(name, ready, ...)                                                                           \
    do {                                                                                                               \
        if (!(ready)) {                                                                                                \
            QUORVEX_TRACE_SCOPE("wait for " name);                                                                     \
            __VA_ARGS__;                                                                                               \
        }                                                                                                              \
    } while (0)
#else
#define QUORVEX_TRACE_WAIT(name, ready, ...)                                                                           \
    do {                                                                                                               \
        if (!(ready)) {                                                                                                \
            static quorvex_site quorvex_here;                                                                          \
            const unsigned quorvex_entered = quorvex_enter(&quorvex_here, "wait for " name);                           \
            __VA_ARGS__;                                                                                               \
            quorvex_leave(quorvex_entered);                                                                            \
        }                                                                                                              \
    } while (0)
#endif
