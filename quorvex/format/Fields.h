#pragma once

/// The vocabulary in which contexts and payloads are described.
///
/// A *part* of a packet (a context or a payload) lists its fields once, in wire order:
///
///     template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
///         visit(FieldMeaning::Id, "TypeId", self.m_TypeId);
///         visit(FieldMeaning::Count, "VarSize", self.m_VarSize);
///     }
///
/// Size, reading, writing and every presentation follow from that list. Self is const for those that only look.
/// A part says the bytes of its fixed fields by `static Len()`, which is checked against the list. One whose fields
/// depend on how many bytes there are has `bool shape(unsigned size)`, which chooses the fields for that size or
/// refuses it; one that reads by other rules than it writes has `bool decode(const char* from, unsigned size)`.

#include "quorvex/platform/LittleEndian.h"

#include <concepts>
#include <cstdint>
#include <iterator>
#include <type_traits>

namespace Quorvex {

/// An unknown tick or address.
inline constexpr std::uint64_t kUnknown64 = ~std::uint64_t{0};

/// What a field tells, which decides how people and tools are shown it.
enum class FieldMeaning : std::uint8_t {
    Tick,    ///< time stamp or its relative byte
    Address, ///< address or its relative byte
    Context, ///< number of a core or a thread
    Unit,    ///< number of a bus master or a channel
    Id,      ///< identifier that other packets refer to
    Count,   ///< number of bytes, dimensions or the like
    Number,  ///< any other number
    Length,  ///< byte count of a trace
    Bytes,   ///< raw data
};

/// How the number in a field is shown.
enum class FieldLook : std::uint8_t {
    Decimal,
    Hexadecimal,
    Tick,    ///< decimal, or hexadecimal for who asks for it
    Address, ///< hexadecimal
    Context, ///< decimal
    Unit,    ///< decimal
    Length,  ///< decimal
};

/// What is known of a meaning.
struct FieldFacts {
    const char* type;  ///< what tables of the format call it
    FieldLook look;    ///< how its numbers are shown
    bool canBeUnknown; ///< all ones mean that it is not known
};

/// The facts of each meaning, in the order of FieldMeaning.
inline constexpr FieldFacts kFieldFacts[] = {
    {"tick", FieldLook::Tick, true},         {"address", FieldLook::Address, true},
    {"unit", FieldLook::Context, true},      {"unit", FieldLook::Unit, true},
    {"id", FieldLook::Hexadecimal, false},   {"number", FieldLook::Decimal, false},
    {"number", FieldLook::Decimal, false},   {"length", FieldLook::Length, true},
    {"data", FieldLook::Hexadecimal, false},
};
static_assert(std::size(kFieldFacts) == std::size_t(FieldMeaning::Bytes) + 1);

/// What is known of a meaning.
constexpr const FieldFacts& factsOf(FieldMeaning meaning) {
    return kFieldFacts[std::size_t(meaning)];
}

/// Whether a field with that value tells that it is not known. The relative byte of a tick or an address never does.
template <std::integral T> constexpr bool isUnknown(FieldMeaning meaning, T value) {
    return sizeof value >= 4 && factsOf(meaning).canBeUnknown && value == static_cast<T>(~T{0});
}

/// How a value travels. The primary form serves integers and enumerations of a fixed width; variable-width types
/// bring their own with the same members.
template <class T> struct FieldCodec {
    static_assert(std::integral<T> || std::is_enum_v<T>);
    /// Bytes of every value; 0 for types of variable width.
    static constexpr unsigned kFixed = sizeof(T);
    static unsigned size(const T&) { return sizeof(T); }
    /// Takes the value from the `size` bytes at `from`; the bytes taken, or -1 when they do not make a value.
    static int decode(T& value, const char* from, unsigned size) {
        if (size < sizeof(T))
            return -1;
        value = loadLittleEndian<T>(from);
        return sizeof(T);
    }
    /// Puts the value's bytes; the caller has made room for `size(value)` of them.
    static void encode(const T& value, char* to) { storeLittleEndian(to, value); }
};

namespace fields {

struct Sizer {
    unsigned size = 0;
    template <class T> void operator()(FieldMeaning, const char*, const T& value) {
        size += FieldCodec<T>::size(value);
    }
};

struct Encoder {
    char* to;
    template <class T> void operator()(FieldMeaning, const char*, const T& value) {
        FieldCodec<T>::encode(value, to);
        to += FieldCodec<T>::size(value);
    }
};

/// Takes fields of fixed width from bytes that are all there.
struct Loader {
    const char* from;
    template <class T> void operator()(FieldMeaning, const char*, T& value) {
        FieldCodec<T>::decode(value, from, FieldCodec<T>::kFixed);
        from += FieldCodec<T>::kFixed;
    }
};

struct Decoder {
    const char* from;
    unsigned left;
    bool good = true;
    template <class T> void operator()(FieldMeaning, const char*, T& value) {
        const int taken = good ? FieldCodec<T>::decode(value, from, left) : -1;
        if (taken < 0) {
            good = false;
            return;
        }
        from += taken;
        left -= static_cast<unsigned>(taken);
    }
};

} // namespace fields

/// A part whose width follows from what its packet's payload still holds.
template <class Part>
concept VariablePart = requires(Part& part) {
    part.shape(0U);
}
|| Part::kTakesRest;

/// Bytes that the part occupies on the wire as it is now.
template <class Part> unsigned partSize(const Part& part) {
    fields::Sizer sizer;
    Part::fields(part, sizer);
    return sizer.size;
}

/// Writes the part to `to`, which has room for partSize(part) bytes.
template <class Part> void encodePart(const Part& part, char* to) {
    fields::Encoder encoder{to};
    Part::fields(part, encoder);
}

/// Takes the part from exactly `size` bytes. On false the part may be half changed: decode into a fresh one.
template <class Part> bool decodePart(Part& part, const char* from, unsigned size) {
    if constexpr (requires { part.decode(from, size); }) {
        return part.decode(from, size);
    } else if constexpr (!VariablePart<Part>) {
        fields::Loader loader{from};
        if (size == Part::Len())
            Part::fields(part, loader);
        return size == Part::Len();
    } else {
        if constexpr (requires { part.shape(size); }) {
            if (!part.shape(size))
                return false;
        }
        fields::Decoder decoder{from, size};
        Part::fields(part, decoder);
        return decoder.good && decoder.left == 0;
    }
}

/// How a part of fixed size moves in memory: the part's own `read` and `write` call these.
namespace part {

template <class Part> unsigned read(Part& part, const char* buf, unsigned size) {
    Part fresh;
    if (!buf || size < Part::Len() || !decodePart(fresh, buf, Part::Len()))
        return 0;
    part = fresh;
    return Part::Len();
}

template <class Part> unsigned write(const Part& part, char* buf, unsigned size) {
    if (!buf || size < Part::Len())
        return 0;
    encodePart(part, buf);
    return Part::Len();
}

} // namespace part

} // namespace Quorvex
