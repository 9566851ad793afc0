#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/Integers.h"

#include <bit>
#include <concepts>
#include <cstdint>

/// A counter value of variable width: widths 0, 1, 2, 4 and 8 live inside the object, any other up to 255 is an owned
/// heap buffer. Bytes are never reversed. A double is held by its bits, with width 8; comparing with one is bitwise.
struct QUORVEX_API TVarCounter_t {
    TVarCounter_t() = default;
    /// At an inline width the storage takes all eight bytes of the value. At any other, a buffer gets its low `len`
    /// bytes, with zeros above the eight: the value itself would be taken for a buffer's address, read through and
    /// freed.
    TVarCounter_t(std::uint64_t value, std::uint8_t len);
    template <std::same_as<Quorvex::OtherUnsigned> T>
    TVarCounter_t(T value, std::uint8_t len) : TVarCounter_t(std::uint64_t{value}, len) {}
    TVarCounter_t(double value) { set(std::bit_cast<std::uint64_t>(value)); }
    TVarCounter_t(std::uint64_t value) { set(value); }
    TVarCounter_t(Quorvex::OtherUnsigned value) { set(value); }
    TVarCounter_t(std::uint32_t value) { set(value); }
    TVarCounter_t(std::uint16_t value) { set(value); }
    TVarCounter_t(std::uint8_t value) { set(value); }
    /// As assign(bytes, len).
    TVarCounter_t(const std::uint8_t* bytes, std::uint8_t len) { assign(bytes, len); }
    TVarCounter_t(const TVarCounter_t& other) { assign(other); }
    ~TVarCounter_t() { clear(); }

    TVarCounter_t& operator=(double value) { return set(std::bit_cast<std::uint64_t>(value)); }
    TVarCounter_t& operator=(std::uint64_t value) { return set(value); }
    TVarCounter_t& operator=(Quorvex::OtherUnsigned value) { return set(value); }
    TVarCounter_t& operator=(std::uint32_t value) { return set(value); }
    TVarCounter_t& operator=(std::uint16_t value) { return set(value); }
    TVarCounter_t& operator=(std::uint8_t value) { return set(value); }
    TVarCounter_t& operator=(const TVarCounter_t& other) {
        assign(other);
        return *this;
    }

    /// Views of the eight bytes of storage, whatever the width.
    operator std::uint8_t&() { return m_storage.u8; }
    operator std::uint16_t&() { return m_storage.u16; }
    operator std::uint32_t&() { return m_storage.u32; }
    operator std::uint64_t&() { return m_storage.u64; }
    operator Quorvex::OtherUnsigned&() { return m_storage.other; }
    operator double&() { return m_storage.dbl; }
    operator const std::uint8_t&() const { return m_storage.u8; }
    operator const std::uint16_t&() const { return m_storage.u16; }
    operator const std::uint32_t&() const { return m_storage.u32; }
    operator const std::uint64_t&() const { return m_storage.u64; }
    operator const Quorvex::OtherUnsigned&() const { return m_storage.other; }
    operator const double&() const { return m_storage.dbl; }

    /// Equal to a scalar: of its width and with its bits.
    bool operator==(double value) const { return is(std::bit_cast<std::uint64_t>(value)); }
    bool operator==(std::uint64_t value) const { return is(value); }
    bool operator==(Quorvex::OtherUnsigned value) const { return is(value); }
    bool operator==(std::uint32_t value) const { return is(value); }
    bool operator==(std::uint16_t value) const { return is(value); }
    bool operator==(std::uint8_t value) const { return is(value); }
    bool operator==(const TVarCounter_t& other) const { return equal(other); }

    std::uint8_t Length() const { return m_length; }
    /// The Length() bytes, lowest first.
    const std::uint8_t* data() const { return isInline(m_length) ? &m_storage.u8 : m_storage.heap; }
    bool empty() const { return m_length == 0 && m_storage.u64 == 0; }
    void clear();
    void assign(const TVarCounter_t& other);
    /// Takes a copy of the bytes in a buffer of their own, at every width: also at 1, 2, 4 and 8, where the storage
    /// then holds the buffer's address in place of a value and clear() does not free it. Counter packets build their
    /// values from scalars instead.
    void assign(const std::uint8_t* bytes, std::uint8_t len);
    bool equal(const TVarCounter_t& other) const; ///< of the same width and value

private:
    static constexpr bool isInline(unsigned len) { return len == 0 || len == 1 || len == 2 || len == 4 || len == 8; }

    template <class T> TVarCounter_t& set(T value) {
        clear();
        m_storage.u64 = value;
        m_length = sizeof(T);
        return *this;
    }
    template <class T> bool is(T value) const {
        return m_length == sizeof(T) && static_cast<T>(m_storage.u64) == value;
    }

    union {
        std::uint8_t u8;
        std::uint16_t u16;
        std::uint32_t u32;
        std::uint64_t u64 = 0;
        Quorvex::OtherUnsigned other;
        double dbl;
        std::uint8_t* heap;
    } m_storage;
    std::uint8_t m_length = 0;
};
