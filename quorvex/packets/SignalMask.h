#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"

#include <array>
#include <compare>
#include <concepts>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>

namespace Quorvex {

/// A vector of at most 952 bits (119 bytes, the largest that a packet can carry). Bit i stands in byte i / 8 at
/// position i mod 8. As text it is one character '0' or '1' a bit, bit 0 first.
///
/// Bits beyond the size do not exist: to name one throws std::range_error, as do operations on masks of different
/// sizes. More than 952 bits throw std::length_error.
class QUORVEX_API CSignalMask {
public:
    static constexpr unsigned kMaxBits = 952;

    /// Stands for one bit of a mask, which must outlive it.
    class reference {
    public:
        reference(CSignalMask& mask, unsigned bit) : m_mask(mask), m_bit(bit) {}
        reference(const reference&) = default;
        reference& operator=(bool value) {
            m_mask.set(m_bit, value);
            return *this;
        }
        reference& operator=(const reference& other) { return *this = bool(other); }
        operator bool() const { return m_mask.test(m_bit); }
        bool operator~() const { return !m_mask.test(m_bit); }
        reference& flip() {
            m_mask.flip(m_bit);
            return *this;
        }

    private:
        CSignalMask& m_mask;
        unsigned m_bit;
    };

    CSignalMask() = default;
    /// That many bits, all 0. Takes every type of integer, so that a plain 0 is not taken for a null text.
    template <std::integral T> explicit CSignalMask(T bits) {
        allocate(std::in_range<unsigned>(bits) ? static_cast<unsigned>(bits) : kMaxBits + 1);
    }
    /// Throws the runtime CQVXException for a text with other characters than '0' and '1'.
    explicit CSignalMask(const char* text);
    /// That many bits, copied from bytes.
    CSignalMask(unsigned bits, const unsigned char* bytes);
    CSignalMask(const CSignalMask& other);
    CSignalMask& operator=(const CSignalMask& other);
    /// Throws the runtime CQVXException, and is empty, for a text with other characters.
    CSignalMask& operator=(const char* text);
    /// As the operator, with a result in place of an exception.
    bool assign(const std::string& text);

    /// Keeps the bits that remain, and makes new ones 0. False, and a message in the log, for too many.
    bool resize(unsigned bits);
    unsigned size() const { return (m_bits + 7) / 8; } ///< bytes
    unsigned bits() const { return m_bits; }
    bool empty() const { return m_bits == 0; }
    /// The size() bytes of the wire; bits beyond the last are 0.
    const unsigned char* data() const { return reinterpret_cast<const unsigned char*>(m_words.data()); }

    CSignalMask& set();
    CSignalMask& set(unsigned bit, bool value = true);
    /// Copies `count` bits from a byte block to bit `from` and on.
    CSignalMask& set(unsigned from, unsigned count, const unsigned char* bytes);
    CSignalMask& reset();
    CSignalMask& reset(unsigned bit);
    CSignalMask& reset(unsigned from, unsigned count);
    CSignalMask& flip();
    CSignalMask& flip(unsigned bit);
    CSignalMask& flip(unsigned from, unsigned count);
    bool operator[](unsigned bit) const { return test(bit); }
    reference operator[](unsigned bit) { return reference(*this, bit); }
    bool test(unsigned bit) const;
    bool any() const;
    bool none() const { return !any(); }
    unsigned count() const;

    bool operator==(const CSignalMask& other) const;
    /// By the number that the bits make, the highest bit first; among equal numbers the shorter mask is less.
    std::strong_ordering operator<=>(const CSignalMask& other) const;

    CSignalMask operator~() const;
    CSignalMask operator&(const CSignalMask& other) const;
    CSignalMask operator|(const CSignalMask& other) const;
    CSignalMask operator^(const CSignalMask& other) const;
    CSignalMask& operator&=(const CSignalMask& other);
    CSignalMask& operator|=(const CSignalMask& other);
    CSignalMask& operator^=(const CSignalMask& other);
    /// The other's bits behind this one's.
    CSignalMask operator+(const CSignalMask& other) const;
    CSignalMask& operator+=(const CSignalMask& other);
    /// The `count` bits from `from` on.
    CSignalMask submask(unsigned from, unsigned count) const;
    /// The bits that `mask` selects, packed to the front.
    CSignalMask submask(const CSignalMask& mask) const;

    bool print(std::ostream& out) const; ///< the bits as digits
    /// False when `size` characters are too few; no terminator is written.
    bool print(char* buf, unsigned size, unsigned& written) const;
    /// Reads that many bytes: the mask then has eight times as many bits. On false it is empty.
    bool read(std::istream& in, unsigned bytes);
    bool read(const char* buf, unsigned size, unsigned bytes, unsigned& consumed);
    bool write(std::ostream& out) const;
    bool write(char* buf, unsigned size, unsigned& written) const;

private:
    using Word = std::uint64_t;
    static constexpr unsigned kWordBits = 64;
    static constexpr unsigned kWords = (kMaxBits + kWordBits - 1) / kWordBits;

    unsigned words() const { return (m_bits + kWordBits - 1) / kWordBits; }
    void allocate(unsigned bits);
    void clearTail();
    /// The bits from `from` on, up to 64, as a word; bits beyond the last are 0.
    Word wordAt(unsigned from) const;
    /// Calls `change(word, selected)` for every word that the range touches.
    template <class Change> void forRange(unsigned from, unsigned count, Change&& change);
    template <class Combine> CSignalMask& combine(const CSignalMask& other, const char* failure, Combine&& combine);
    void append(Word bits, unsigned count);

    /// Words hold the bytes in wire order; those beyond words() are 0.
    std::array<Word, kWords> m_words{};
    unsigned m_bits = 0;
};

/// A mask field is as wide as the payload has made it before it is read.
template <> struct FieldCodec<CSignalMask> {
    static constexpr unsigned kFixed = 0;
    static unsigned size(const CSignalMask& value) { return value.size(); }
    static int decode(CSignalMask& value, const char* from, unsigned size) {
        unsigned consumed = 0;
        const unsigned bytes = value.size();
        return value.read(from, size, bytes, consumed) ? static_cast<int>(consumed) : -1;
    }
    static void encode(const CSignalMask& value, char* to) {
        unsigned written = 0;
        value.write(to, value.size(), written);
    }
};

} // namespace Quorvex
