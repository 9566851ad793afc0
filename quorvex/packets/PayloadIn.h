#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/format/PacketHeader.h"
#include "quorvex/packets/StringPackets.h"

#include <cstdint>
#include <exception>
#include <istream>

namespace Quorvex {

/// A part whose width follows from what its packet's payload still holds.
template <class Part>
concept VariablePart = requires(Part& part) {
    part.shape(0U);
}
|| Part::kTakesRest;

/// A cursor over the payload of one packet whose header is already read. It hides whether the bytes come from a stream
/// or from memory and does all checks of bounds.
class PayloadIn {
public:
    PayloadIn(const CPacketHeader& header, std::istream& in) : m_header(header), m_stream(&in) {}
    PayloadIn(const CPacketHeader& header, const char* payload, unsigned size)
        : m_header(header), m_buffer(payload), m_size(payload ? size : 0) {}

    const CPacketHeader& header() const { return m_header; }
    bool fromStream() const { return m_stream != nullptr; }
    /// Whether that many bytes of payload are there. A stream cannot tell beforehand.
    bool holds(unsigned size) const { return m_stream || (m_buffer && size <= m_size); }
    /// Bytes that the header announces beyond those taken; negative when more were taken.
    int left() const { return static_cast<int>(m_header.Length()) - static_cast<int>(m_payload); }
    /// All bytes taken, those of texts behind the payload included.
    unsigned consumed() const { return m_payload + m_text; }

    /// Reads a part. On false the part is unchanged or half read: the packet that is being built is given up.
    template <class Part> bool read(Part& part) {
        unsigned size = 0;
        if constexpr (VariablePart<Part>) {
            if (left() < 0)
                return false;
            size = static_cast<unsigned>(left());
        } else {
            size = Part::Len();
        }
        if (m_stream) {
            if (!readFromStream(part, size))
                return false;
        } else if (m_size - m_payload < size || !decodePart(part, m_buffer + m_payload, size)) {
            return false;
        }
        m_payload += size;
        return true;
    }

    /// Reads the text that follows the payload as CharString packets; empty when none follows.
    bool readText(CCharStringSequence& text) {
        if (m_stream)
            return text.read(*m_stream);
        return text.read(m_buffer + m_payload, m_size - m_payload, m_text);
    }

private:
    template <class Part> bool readFromStream(Part& part, unsigned size) {
        // A context reports by itself what the stream throws.
        if constexpr (requires { part.read(*m_stream); }) {
            return part.read(*m_stream);
        } else {
            try {
                char bytes[UINT8_MAX];
                return (size == 0 || m_stream->read(bytes, size)) && decodePart(part, bytes, size);
            } catch (const std::exception& exception) {
                if constexpr (requires { Part::onReadException(""); })
                    Part::onReadException(exception.what());
                return false;
            }
        }
    }

    CPacketHeader m_header;
    std::istream* m_stream = nullptr;
    const char* m_buffer = nullptr;
    unsigned m_size = 0;
    unsigned m_payload = 0;
    unsigned m_text = 0;
};

} // namespace Quorvex
