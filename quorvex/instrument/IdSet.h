#pragma once

#include "quorvex/platform/Export.h"

#include <array>
#include <cstdint>

namespace Quorvex::detail {

/// The ids that a trace has announced. Between unpack() and pack() it takes its memory from the system, not from the
/// program's allocator, which may just have been interrupted.
class QUORVEX_API IdSet {
public:
    IdSet() = default;
    IdSet(const IdSet&) = delete;
    IdSet& operator=(const IdSet&) = delete;
    ~IdSet();

    /// Whether a small id is there; false for others, of which only insert() can tell.
    bool contains(std::uint32_t id) const { return id < kFew && (m_few[id / kBits] >> id % kBits & 1) != 0; }
    /// False when the id is there already. Where there is no memory, an id may be forgotten.
    bool insert(std::uint32_t id);
    /// Keeps the ids in as little memory as they need, from the program's allocator, until unpack(): before that no id
    /// is inserted. Where there is none, all stays as it is.
    void pack();
    void unpack(); ///< undoes pack()

private:
    /// The slot of an id that is not small, or the empty one that it belongs into. A slot holds 0 or the id.
    static std::uint32_t& slotOf(std::uint32_t* slots, unsigned count, std::uint32_t id);
    bool grow();
    void release();

    static constexpr unsigned kFew = 128; ///< ids below it are small, and a bit each
    static constexpr unsigned kBits = 32;
    static constexpr unsigned kOwnSlots = 8;
    static constexpr unsigned kFirstSlots = 1024;

    std::array<std::uint32_t, kFew / kBits> m_few{};
    std::array<std::uint32_t, kOwnSlots> m_own{};
    std::uint32_t* m_slots = m_own.data();
    unsigned m_slotCount = kOwnSlots;
    unsigned m_count = 0;
    std::uint32_t* m_packed = nullptr; ///< m_count ids, owned
};

} // namespace Quorvex::detail
