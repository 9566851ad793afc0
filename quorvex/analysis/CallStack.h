#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace Quorvex {

/// What is entered and not left in one place: functions in a thread, interrupts on a core.
///
/// Traces lack leaves, and may have no end of enters: as many entries as the limit are kept. By enter() these are the
/// first ones, with the count of those that are entered above them, by enterLast() the last ones. What that means as a
/// loss is for the caller to say. Used by one thread at a time.
template <class Entry> class CallStack {
public:
    explicit CallStack(std::size_t limit) : m_limit(limit) {}

    /// Enters what `make` makes. False, without a call of it, when that is counted only.
    template <class Make> bool enter(Make make) {
        if (m_entries.size() == m_limit) {
            ++m_hidden;
            return false;
        }
        m_entries.push_back(make());
        return true;
    }
    /// Enters what `make` makes where the last entries matter: at the limit the outermost one is forgotten for it,
    /// which is returned.
    template <class Make> std::optional<Entry> enterLast(Make make) {
        std::optional<Entry> forgotten;
        if (m_entries.size() == m_limit) {
            forgotten = std::move(m_entries.front());
            m_entries.erase(m_entries.begin());
        }
        m_entries.push_back(make());
        return forgotten;
    }
    /// How many entries a leave ends, the innermost first, for the caller to pop(): more than one where leaves are
    /// missing, 0 where what is left was only counted. Nothing when no entry is the one that is left, as `isIt` tells.
    template <class IsIt> std::optional<std::size_t> leave(IsIt isIt) {
        if (m_hidden > 0) {
            --m_hidden;
            return 0;
        }
        for (std::size_t count = 1; count <= m_entries.size(); ++count) {
            if (isIt(m_entries[m_entries.size() - count]))
                return count;
        }
        return std::nullopt;
    }
    void pop() { m_entries.pop_back(); }
    /// Counts that many further entries.
    void hide(std::uint64_t count) { m_hidden += count; }
    /// Leaves what was only counted.
    void forgetHidden() { m_hidden = 0; }

    bool empty() const { return m_entries.empty(); }
    bool full() const { return m_entries.size() == m_limit; }           ///< what is entered next is only counted
    std::size_t size() const { return m_entries.size(); }               ///< of the entries that are kept
    std::uint64_t depth() const { return m_entries.size() + m_hidden; } ///< of all
    Entry& back() { return m_entries.back(); }
    const Entry& back() const { return m_entries.back(); }
    /// The entries, outermost first.
    const std::vector<Entry>& entries() const { return m_entries; }

private:
    std::vector<Entry> m_entries;
    std::size_t m_limit;
    std::uint64_t m_hidden = 0;
};

} // namespace Quorvex
