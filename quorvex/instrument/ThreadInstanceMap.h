#pragma once

#include <map>
#include <mutex>

namespace Quorvex {

/// The streams of a process by the number of their thread. The map owns them and destroys all it holds with itself, by
/// which their traces are completed. All operations may be called from any thread.
template <class Stream> class ThreadInstanceMap {
public:
    using Streams = std::map<unsigned, Stream*>; ///< by thread number

    ThreadInstanceMap() = default;
    ThreadInstanceMap(const ThreadInstanceMap&) = delete;
    ThreadInstanceMap& operator=(const ThreadInstanceMap&) = delete;
    ~ThreadInstanceMap() {
        const std::lock_guard lock(m_lock);
        for (const auto& [thread, stream] : m_streams)
            delete stream;
        m_streams.clear();
    }

    /// The stream of a thread; null when it has none.
    Stream* operator()(unsigned thread) {
        return find(thread, [](Stream&) {});
    }

    /// The same; calls `claim` with it before any other operation on the map can come between.
    template <class Claim> Stream* find(unsigned thread, Claim&& claim) {
        const std::lock_guard lock(m_lock);
        const auto found = m_streams.find(thread);
        if (found == m_streams.end())
            return nullptr;
        claim(*found->second);
        return found->second;
    }

    /// Takes the stream over. False, with nothing taken, when the thread has one already or the map is closed.
    bool insert(unsigned thread, Stream* stream) {
        const std::lock_guard lock(m_lock);
        return !m_closed && stream && m_streams.emplace(thread, stream).second;
    }

    /// Takes no more streams. `end` is called with all there are, may take out those that it destroys, and the others
    /// stay in memory for good: their threads may still hold them.
    template <class End> void close(End&& end) {
        const std::lock_guard lock(m_lock);
        m_closed = true;
        end(m_streams);
        abandon();
    }

    /// Forgets all streams without touching them; in a forked child they are the parent's. They stay in memory. The
    /// caller holds the lock.
    void abandon() {
        m_abandoned.merge(m_streams);
        m_streams.clear();
    }

    bool closed() {
        const std::lock_guard lock(m_lock);
        return m_closed;
    }

    /// Holds all operations off, for what must see the map at rest.
    void lock() { m_lock.lock(); }
    void unlock() { m_lock.unlock(); }

private:
    // Not a recursive one: a forked child may only unlock what knows no owner.
    std::mutex m_lock;
    Streams m_streams;
    Streams m_abandoned;
    bool m_closed = false;
};

} // namespace Quorvex
