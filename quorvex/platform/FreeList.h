#pragma once

/// Memory for what comes and goes in great numbers: packets, their data, their names and the nodes of their lists.

#include <cstddef>
#include <new>

namespace Quorvex::platform {

/// Whether threads keep what is given back. Builds for sanitizers do not, so that the sanitizer sees the life of each
/// object, nor do those for Windows, where thread_local costs more than it saves.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(hwaddress_sanitizer) || __has_feature(memory_sanitizer)
#define QUORVEX_MEMORY_IS_WATCHED
#endif
#endif
#if defined(QUORVEX_MEMORY_IS_WATCHED) || defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
inline constexpr bool kKeepsFreed = false;
#else
inline constexpr bool kKeepsFreed = true;
#endif
#undef QUORVEX_MEMORY_IS_WATCHED

/// Bytes of blocks that a thread keeps at most: what the smallest packets take of a block that a reader reads, made
/// absolute.
inline constexpr std::size_t kMostKept = 0x400000;
/// Larger blocks are not kept.
inline constexpr std::size_t kLargestKept = 512;

/// A block for an object of that size without extended alignment: one that this thread has kept, or a new one. Throws
/// std::bad_alloc.
///
/// Each block is made by the program's operator new and ends with its operator delete, rounded up to a multiple of 16
/// bytes: so a host that replaces them has its own memory here, but is not asked each time. A thread keeps what it has
/// given back, wherever that came from, up to kMostKept; the rest, and all when the thread ends, goes back to the
/// program. Not for signal handlers.
void* takeBlock(std::size_t size);
void* takeBlock(std::size_t size, const std::nothrow_t& none) noexcept; ///< the same; null where memory is short
/// Gives a block back, told the size that it was taken for; on any thread.
void giveBlock(void* block, std::size_t size) noexcept;

/// Calls `ended` with what a thread has set when that thread ends, after the destructors of its thread_local objects;
/// for the thread that destroys the key, then.
class ThreadKey {
public:
    explicit ThreadKey(void (*ended)(void* value));
    ThreadKey(const ThreadKey&) = delete;
    ThreadKey& operator=(const ThreadKey&) = delete;
    ~ThreadKey();
    bool set(void* value) const; ///< false where the system has no room for it

private:
    void (*m_ended)(void*);
    unsigned long m_key = 0;
    bool m_made = false;
};

/// What each thread has for itself: one object of a type, made when the thread asks for it, destroyed as the thread
/// ends. Where the library is unloaded earlier, only the thread that does it destroys its object.
template <class T> class OfThread {
public:
    /// Null where the thread has none yet, or none any more.
    static T* find() { return t_object; }
    /// Null where nothing is kept, memory is short, or the thread is about to end.
    static T* get() { return t_object || t_ended ? t_object : make(); }

private:
    [[gnu::noinline, gnu::cold]] static T* make() {
        if constexpr (kKeepsFreed) {
            static const ThreadKey key([](void* object) {
                t_object = nullptr;
                t_ended = true;
                delete static_cast<T*>(object);
            });
            T* made = new (std::nothrow) T;
            if (made && key.set(made))
                return t_object = made;
            delete made;
        }
        return nullptr;
    }

    // Plain memory, so that reading it costs no check for its construction, and it outlives what is destroyed.
    inline static constinit thread_local T* t_object = nullptr;
    inline static constinit thread_local bool t_ended = false;
};

} // namespace Quorvex::platform
