#pragma once

#include "quorvex/format/TCodeInfo.h"

#include <babeltrace2/babeltrace.h>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// Makes the packets again of which CCtfWriter has made events of a class.
class CtfPackets {
public:
    /// Nothing for events that are named like no kind which it writes.
    static std::optional<CtfPackets> of(const bt_event_class* events);

    /// Whether packets of the kind tell their tick.
    bool hasTick() const { return m_tickAt != kNoTick; }
    /// Appends the packet that an event tells, as it stands in a trace, with the text behind it. False where the fields
    /// are not those of the kind, or too many.
    bool put(const bt_field* payload, std::uint64_t tick, std::string& bytes) const;

    /// A decimal number.
    static std::optional<std::uint64_t> numberIn(std::string_view text);

private:
    enum class Field : std::uint8_t { Number, Row, Data, Text, Size };
    static constexpr std::size_t kNoTick = ~std::size_t{0};

    explicit CtfPackets(Quorvex::tagTCode kind) : m_kind(kind) {}

    Quorvex::tagTCode m_kind;
    std::size_t m_tickAt = kNoTick; ///< how many fields stand before the tick
    std::vector<Field> m_fields;
};

} // namespace qvx
