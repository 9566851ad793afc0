#pragma once

#include "quorvex/format/TCodeInfo.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/System.h"

#include <cstdint>
#include <iosfwd>

namespace Quorvex {

/// The two bytes that every packet begins with: type code, then payload length (the header itself not counted).
/// A destroyed header holds 0xFF in both, and so reads as Invalid.
class QUORVEX_API CPacketHeader {
public:
    CPacketHeader(tagTCode code = Sync, std::uint8_t length = 0xFF)
        : m_code(static_cast<std::uint8_t>(code)), m_length(length) {}
    CPacketHeader(const CPacketHeader&) = default;
    CPacketHeader& operator=(const CPacketHeader&) = default;
    ~CPacketHeader() { platform::overwrite(*this, 0xFF); }

    static constexpr std::uint8_t Len() { return 2; }

    bool operator==(const CPacketHeader& other) const { return m_code == other.m_code && m_length == other.m_length; }

    tagTCode TraceCode() const { return tagTCode(m_code); }
    unsigned Length() const { return m_length; }
    unsigned StreamSize() const { return Len(); } ///< bytes of the header

    /// Reads both bytes; on failure the header stays as it was. The code is not checked.
    bool read(std::istream& in);
    /// Returns 2, or 0 for a null or too short buffer.
    unsigned read(const char* buf, unsigned size) {
        if (!buf || size < Len())
            return 0;
        m_code = static_cast<std::uint8_t>(buf[0]);
        m_length = static_cast<std::uint8_t>(buf[1]);
        return Len();
    }
    /// What the stream throws is reported to the message log.
    bool write(std::ostream& out);
    unsigned write(char* buf, unsigned size) {
        if (!buf || size < Len())
            return 0;
        const std::uint8_t bytes[] = {m_code, m_length}; // both before either can be overwritten
        buf[0] = static_cast<char>(bytes[0]);
        buf[1] = static_cast<char>(bytes[1]);
        return Len();
    }

protected:
    void SetLength(std::uint8_t length) { m_length = length; } ///< sets the bytes of the payload
    std::uint8_t GetLength() const { return m_length; }        ///< bytes of the payload

private:
    std::uint8_t m_code;
    std::uint8_t m_length;
};

} // namespace Quorvex
