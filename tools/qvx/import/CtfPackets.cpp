#include "CtfPackets.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <type_traits>

namespace qvx {

using namespace Quorvex;

namespace {

/// What the fields of a kind are, as far as those of an event do not tell.
struct Layout {
    std::size_t count = 0;
    std::optional<std::size_t> tick;
    std::vector<std::string_view> data; ///< names of fields that hold data, whose bytes some widths put the other way

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* name, const T&) {
        if (meaning == FieldMeaning::Tick)
            tick = count;
        if constexpr (std::is_same_v<T, CData>)
            data.emplace_back(name);
        ++count;
    }
};

void append(std::string& bytes, std::uint64_t value, std::size_t size) {
    for (; size > 0; --size, value >>= 8)
        bytes += static_cast<char>(value & 0xFF);
}

std::optional<std::size_t> sizeOf(const bt_field_class* number) {
    if (!bt_field_class_type_is(bt_field_class_get_type(number), BT_FIELD_CLASS_TYPE_INTEGER))
        return std::nullopt;
    return static_cast<std::size_t>(bt_field_class_integer_get_field_value_range(number)) / 8;
}

std::uint64_t valueOf(const bt_field* number) {
    return bt_field_class_type_is(bt_field_get_class_type(number), BT_FIELD_CLASS_TYPE_UNSIGNED_INTEGER)
               ? bt_field_integer_unsigned_get_value(number)
               : static_cast<std::uint64_t>(bt_field_integer_signed_get_value(number));
}

} // namespace

std::optional<std::uint64_t> CtfPackets::numberIn(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<CtfPackets> CtfPackets::of(const bt_event_class* events) {
    const char* const name = bt_event_class_get_name(events);
    const bt_field_class* const payload = bt_event_class_borrow_payload_field_class_const(events);
    unsigned code = 0;
    while (code < kKindFacts.size() &&
           (!kKindFacts[code].hasClass || kKindFacts[code].isRelative || kKindFacts[code].role == Role::Structure ||
            !name || std::string_view(CTCodeInfo::TCodeToName(tagTCode(code))) != name))
        ++code;
    if (code == kKindFacts.size() || !payload)
        return std::nullopt;
    CtfPackets packets{tagTCode(code)};
    Layout layout;
    const std::unique_ptr<CPacket> sample(CPacketFactory::getCPacket(packets.m_kind));
    visitKind(*sample, [&layout](const auto& its) { its.visitParts(layout); });
    packets.m_tickAt = layout.tick.value_or(kNoTick);

    const std::uint64_t count = bt_field_class_structure_get_member_count(payload);
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto* const member = bt_field_class_structure_borrow_member_by_index_const(payload, i);
        const auto* const its = bt_field_class_structure_member_borrow_field_class_const(member);
        const std::string_view called = bt_field_class_structure_member_get_name(member);
        const bt_field_class_type type = bt_field_class_get_type(its);
        if (bt_field_class_type_is(type, BT_FIELD_CLASS_TYPE_ARRAY) &&
            sizeOf(bt_field_class_array_borrow_element_field_class_const(its))) {
            if (!packets.m_fields.empty())
                packets.m_fields.back() = Field::Size; // of the row
            const bool isData = std::ranges::find(layout.data, called) != layout.data.end();
            packets.m_fields.push_back(isData ? Field::Data : Field::Row);
        } else if (type == BT_FIELD_CLASS_TYPE_STRING) {
            packets.m_fields.push_back(Field::Text);
        } else if (sizeOf(its)) {
            packets.m_fields.push_back(Field::Number);
        } else {
            return std::nullopt;
        }
    }
    return packets;
}

bool CtfPackets::put(const bt_field* payload, std::uint64_t tick, std::string& bytes) const {
    const std::size_t start = bytes.size();
    bytes.append(CPacketHeader::Len(), '\0');
    std::string_view text;
    for (std::size_t i = 0; i < m_fields.size(); ++i) {
        if (i == m_tickAt)
            append(bytes, tick, sizeof tick);
        const bt_field* const field = bt_field_structure_borrow_member_field_by_index_const(payload, i);
        switch (m_fields[i]) {
        case Field::Number:
            append(bytes, valueOf(field), *sizeOf(bt_field_borrow_class_const(field)));
            break;
        case Field::Row:
        case Field::Data: {
            const std::size_t from = bytes.size();
            for (std::uint64_t at = 0; at < bt_field_array_get_length(field); ++at) {
                const bt_field* const element = bt_field_array_borrow_element_field_by_index_const(field, at);
                append(bytes, valueOf(element), *sizeOf(bt_field_borrow_class_const(element)));
            }
            const std::size_t size = bytes.size() - from;
            if (size > UINT8_MAX)
                return false;
            if (m_fields[i] == Field::Data && size <= CData::kMaxLength) {
                const CData data(reinterpret_cast<const std::uint8_t*>(bytes.data() + from),
                                 static_cast<std::uint8_t>(size));
                FieldCodec<CData>::encode(data, bytes.data() + from);
            }
            break;
        }
        case Field::Text:
            text = bt_field_string_get_value(field);
            break;
        case Field::Size:
            break;
        }
    }
    if (m_tickAt == m_fields.size())
        append(bytes, tick, sizeof tick);
    const std::size_t size = bytes.size() - start - CPacketHeader::Len();
    if (size > UINT8_MAX)
        return false;
    if (m_kind == CharString)
        bytes.resize(start);
    else
        CPacketHeader(m_kind, static_cast<std::uint8_t>(size)).write(bytes.data() + start, CPacketHeader::Len());
    if (!text.empty()) {
        const auto length = static_cast<unsigned>(text.size());
        const std::size_t at = bytes.size();
        bytes.resize(at + static_cast<std::size_t>(CCharStringSequence::StreamSize(length)));
        CCharStringSequence::writeText(bytes.data() + at, reinterpret_cast<const unsigned char*>(text.data()), length);
    }
    return true;
}

} // namespace qvx
