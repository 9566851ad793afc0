#pragma once

#include "quorvex/format/Digits.h"
#include "quorvex/packets/CounterPackets.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Quorvex {

/// By what a writer finds at once what packets tell values of again and again.
struct ValueKey {
    std::uint8_t sort = 0;         ///< what has the number
    std::uint8_t form = 0;         ///< which of several of the same number; of cells, their dimensions
    std::uint64_t number = 0;      ///< of names
    std::uint64_t indices[2] = {}; ///< of a cell

    bool operator==(const ValueKey&) const = default;
    std::uint64_t hash() const {
        std::uint64_t hash = number << 16 | std::uint64_t{sort} << 8 | form;
        for (const std::uint64_t index : indices)
            hash = (hash ^ index) * 0xD6E8FEB86659FD93;
        return hash;
    }
};

/// A packet that tells the value of a counter as eight bytes.
template <class Packet>
concept CounterPacket = std::derived_from<Packet, CCounterValueBase>;

/// Which cell of a counter a packet tells the value of: its indices, of which a plain counter has none. The packet must
/// outlive it.
class CounterCell {
public:
    explicit CounterCell(const CCounterValue&) {}
    explicit CounterCell(const CCounterValueDim1& packet) : m_few{packet.CntrIdx1()}, m_dimensions(1) {}
    explicit CounterCell(const CCounterValueDim2& packet)
        : m_few{packet.CntrIdx1(), packet.CntrIdx2()}, m_dimensions(2) {}
    explicit CounterCell(const CCounterValueDimN& packet) : m_many(packet.CntrIdx()), m_dimensions(packet.CntrDim()) {}

    /// Tells the key which cell it is; false where a key has no room for that many indices.
    bool tell(ValueKey& key) const {
        key.form = m_dimensions;
        const bool hasRoom = m_dimensions <= kFew;
        for (unsigned i = 0; hasRoom && i < m_dimensions; ++i)
            key.indices[i] = index(i);
        return hasRoom;
    }
    /// The indices, each between two texts.
    std::string text(std::string_view before, std::string_view behind) const {
        std::string text;
        for (unsigned i = 0; i < m_dimensions; ++i)
            text.append(before).append(std::to_string(index(i))).append(behind);
        return text;
    }
    /// The same of the index of any number of bytes, if there is one.
    static std::string textOf(const CCounterValueVar& packet, std::string_view before, std::string_view behind) {
        const TVarCounter_t& index = packet.CntrIdx();
        std::string text;
        if (index.Length() > 0)
            text.append(before).append(decimalNumber(index.data(), index.Length())).append(behind);
        return text;
    }

private:
    static constexpr std::size_t kFew = std::extent_v<decltype(ValueKey::indices)>;

    std::uint64_t index(unsigned i) const { return (m_many ? m_many : m_few)[i].u64; }

    TCounterIdx_t m_few[kFew] = {};
    const TCounterIdx_t* m_many = nullptr; ///< in place of those
    std::uint8_t m_dimensions = 0;
};

} // namespace Quorvex
