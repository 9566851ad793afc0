#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace Quorvex {

/// Values by a key, which are found at once: for what is looked up for nearly every packet. Values stay where they are
/// in memory, and none is taken out. A key is a number, or has `std::uint64_t hash() const` and can be compared.
template <class Key, class Value> class Directory {
public:
    /// Null when there is none.
    [[gnu::always_inline]] Value* find(const Key& key) const {
        Entry* const entry = m_slots.empty() ? nullptr : m_slots[slotOf(key)];
        return entry ? &entry->second : nullptr;
    }
    /// The value of a key; what `make` makes where there is none.
    template <class Make> Value& findOrMake(const Key& key, Make make) {
        if (Value* value = find(key))
            return *value;
        Value made = make(); // which may make others
        if (2 * (m_entries.size() + 1) > m_slots.size())
            grow();
        m_entries.emplace_back(key, std::move(made));
        m_slots[slotOf(key)] = &m_entries.back();
        return m_entries.back().second;
    }
    Value& operator[](const Key& key) {
        return findOrMake(key, [] { return Value(); });
    }
    std::size_t size() const { return m_entries.size(); }
    /// The value that was made as that one, from 0 on.
    Value& at(std::size_t index) { return m_entries[index].second; }
    const Value& at(std::size_t index) const { return m_entries[index].second; } ///< likewise
    /// All of them, in the order in which they were made.
    auto begin() { return m_entries.begin(); }
    auto end() { return m_entries.end(); } ///< see begin

private:
    using Entry = std::pair<const Key, Value>;

    static constexpr std::uint64_t hash(std::uint64_t number) { return number; }
    template <class Other> static auto hash(const Other& key) -> decltype(key.hash()) { return key.hash(); }

    /// Where the key stands, or would stand.
    [[gnu::always_inline]] std::size_t slotOf(const Key& key) const {
        // The upper bits of the product depend on all bits of the hash.
        const std::uint64_t product = hash(key) * 0x9E3779B97F4A7C15;
        const std::size_t last = m_slots.size() - 1;
        std::size_t slot = static_cast<std::size_t>(product >> 32) & last;
        while (m_slots[slot] && !(m_slots[slot]->first == key))
            slot = (slot + 1) & last;
        return slot;
    }
    void grow() {
        m_slots.assign(m_slots.empty() ? 16 : 2 * m_slots.size(), nullptr);
        for (Entry& entry : m_entries)
            m_slots[slotOf(entry.first)] = &entry;
    }

    std::deque<Entry> m_entries;
    std::vector<Entry*> m_slots; ///< their number is a power of two, half of them are free
};

} // namespace Quorvex
