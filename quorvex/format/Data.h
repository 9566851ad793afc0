#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Integers.h"

#include <concepts>
#include <cstdint>
#include <iosfwd>

namespace Quorvex {

/// A data value of 0 to 64 bytes.
///
/// Widths 0, 1, 2, 4 and 8 live inside the object, as little-endian integers. Every other width is an owned heap
/// buffer whose bytes stand in the reverse of their order on the wire; nobody else may release it or put another in its
/// place. Copies are independent.
///
/// Two values of an inline width are equal when their bytes are. Two values of any other width are equal only when they
/// share one buffer, that is, when they are the same object: compare data() and Length() to compare bytes.
class QUORVEX_API CData {
public:
    static constexpr std::uint8_t kMaxLength = 64;

    CData() = default;
    CData(std::uint8_t value) { set(value); }
    CData(std::uint16_t value) { set(value); }
    CData(std::uint32_t value) { set(value); }
    CData(std::uint64_t value) { set(value); }
    CData(OtherUnsigned value) { set(value); }
    CData(std::uint64_t value, std::uint8_t len) { assign(value, len); }
    template <std::same_as<OtherUnsigned> T> CData(T value, std::uint8_t len) { assign(value, len); }
    /// Throws the runtime CQVXException for a null pointer or more than 64 bytes.
    CData(const std::uint8_t* bytes, std::uint8_t len);
    CData(const CData& other) { copy(other); }
    CData& operator=(const CData& other) {
        if (this != &other)
            copy(other);
        return *this;
    }
    ~CData() { clear(); }

    CData& operator=(std::uint8_t value) { return set(value); }
    CData& operator=(std::uint16_t value) { return set(value); }
    CData& operator=(std::uint32_t value) { return set(value); }
    CData& operator=(std::uint64_t value) { return set(value); }
    CData& operator=(OtherUnsigned value) { return set(value); }

    /// Views of the eight bytes of storage, whatever the length; for heap-held values `uint8_t*&` is the buffer.
    operator std::uint8_t&() { return m_storage.u8; }
    operator std::uint16_t&() { return m_storage.u16; }
    operator std::uint32_t&() { return m_storage.u32; }
    operator std::uint64_t&() { return m_storage.u64; }
    operator OtherUnsigned&() { return m_storage.other; }
    operator std::uint8_t*&() { return m_storage.heap; }
    operator const std::uint8_t&() const { return m_storage.u8; }
    operator const std::uint16_t&() const { return m_storage.u16; }
    operator const std::uint32_t&() const { return m_storage.u32; }
    operator const std::uint64_t&() const { return m_storage.u64; }
    operator const OtherUnsigned&() const { return m_storage.other; }
    operator std::uint8_t* const&() const { return m_storage.heap; }
    operator const std::uint8_t*() const { return &m_storage.u8; }

    std::uint32_t Length() const { return m_length; }
    /// The Length() bytes in memory order, lowest first for a number.
    const std::uint8_t* data() const { return isInline(m_length) ? &m_storage.u8 : m_storage.heap; }

    /// The low `len` bytes of `value`, zeros above its eight; false for more than 64.
    bool assign(std::uint64_t value, std::uint8_t len);
    template <std::same_as<OtherUnsigned> T> bool assign(T value, std::uint8_t len) {
        return assign(std::uint64_t{value}, len);
    }
    /// `len` bytes in memory order; false, and an empty value, for a null pointer or more than 64.
    bool assign(const std::uint8_t* bytes, std::uint8_t len);
    /// Copies an inline value out; false, and nothing written, for a heap-held one.
    bool CopyTo(std::uint64_t& value, std::uint8_t& len) const;

    /// Reads `len` bytes in wire order; to read none succeeds whatever the state of the stream. False leaves the value
    /// empty; of a length above 64, 64 bytes are consumed.
    bool read(std::istream& in, std::uint8_t len);
    /// `size` is checked for heap-held widths only: for inline ones the caller has made sure of it.
    bool read(const char* buf, unsigned size, std::uint8_t len, unsigned& consumed);
    bool write(std::ostream& out) const;
    /// Inline widths are written without a look at `size`. An empty value leaves `written` alone.
    bool write(char* buf, unsigned size, unsigned& written) const;

    bool operator==(const CData& other) const;

protected:
    static constexpr bool isInline(unsigned len) { return len == 0 || len == 1 || len == 2 || len == 4 || len == 8; }
    /// The length as it may be: not above the greatest.
    static std::uint8_t LenLimited(unsigned len) {
        return static_cast<std::uint8_t>(len < kMaxLength ? len : kMaxLength);
    }

    void clear();
    /// Makes room for `len` bytes on the heap; false above 64. Throws the out-of-memory CQVXException.
    bool ensure_size(std::uint8_t len);
    bool copy_in(const std::uint8_t* bytes, std::uint8_t len);                           ///< memory order
    bool copy_out(std::uint8_t* bytes, std::uint8_t size, std::uint8_t& written) const;  ///< memory order
    bool read_in(const std::uint8_t* bytes, std::uint8_t len);                           ///< wire order
    bool write_out(std::uint8_t* bytes, std::uint8_t size, std::uint8_t& written) const; ///< wire order

private:
    template <class T> CData& set(T value) {
        clear();
        m_storage.u64 = value;
        m_length = sizeof(T);
        return *this;
    }
    void copy(const CData& other);

    union {
        std::uint8_t u8;
        std::uint16_t u16;
        std::uint32_t u32;
        std::uint64_t u64 = 0;
        OtherUnsigned other;
        std::uint8_t* heap;
    } m_storage;
    std::uint8_t m_length = 0;
};

/// A data field is the last of its payload: its width is whatever the payload still holds.
template <> struct FieldCodec<CData> {
    static constexpr unsigned kFixed = 0;
    static unsigned size(const CData& value) { return value.Length(); }
    static int decode(CData& value, const char* from, unsigned size) {
        unsigned consumed = 0;
        if (size > CData::kMaxLength || !value.read(from, size, static_cast<std::uint8_t>(size), consumed))
            return -1;
        return static_cast<int>(size);
    }
    static void encode(const CData& value, char* to) {
        unsigned written = 0;
        value.write(to, value.Length(), written);
    }
};

} // namespace Quorvex
