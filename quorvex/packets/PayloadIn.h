#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/format/PacketHeader.h"
#include "quorvex/packets/PayloadOperations.h"
#include "quorvex/packets/StringPackets.h"

#include <cstdint>
#include <exception>
#include <istream>

namespace Quorvex {

/// A context, which reports by itself what a stream throws.
template <class Part>
concept MovesItself = requires(Part& part, std::istream& in) {
    typename Part::Values;
    part.read(in);
};

/// A cursor over the payload of one packet whose header is already read. It hides whether the bytes come from a stream
/// or from memory and does all checks of bounds. The header must outlive it.
class PayloadIn {
public:
    PayloadIn(const CPacketHeader& header, std::istream& in) : m_header(&header), m_stream(&in) {}
    PayloadIn(const CPacketHeader& header, const char* payload, unsigned size)
        : m_header(&header), m_buffer(payload), m_size(size) {}
    PayloadIn(CPacketHeader&& header, std::istream& in) = delete;
    PayloadIn(CPacketHeader&& header, const char* payload, unsigned size) = delete;

    const CPacketHeader& header() const { return *m_header; } ///< of the packet that is read
    bool fromStream() const { return m_stream != nullptr; }   ///< not from memory
    /// Whether that many bytes of payload are there. A stream cannot tell beforehand.
    bool holds(unsigned size) const { return m_stream || size <= m_size; }
    /// Whether that many bytes of payload were there.
    bool held(unsigned size) const { return m_stream ? size <= m_payload : size <= m_size; }
    /// Bytes that the header announces beyond those taken; negative when more were taken.
    int left() const { return static_cast<int>(m_header->Length()) - static_cast<int>(m_payload); }
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
        } else if (!inMemory(size) || !decodePart(part, m_buffer + m_payload, size)) {
            return false;
        }
        m_payload += size;
        return true;
    }

    /// Reads the text that follows the payload as CharString packets; empty when none follows.
    bool readText(CCharStringSequence& text) {
        if (m_stream)
            return text.read(*m_stream);
        return !m_buffer || text.read(m_buffer + m_payload, m_size - m_payload, m_text);
    }
    /// Reads a text that the header's length counts: it makes up all that is left.
    bool readCountedText(CCharStringSequence& text) {
        const unsigned size = static_cast<unsigned>(left());
        char bytes[UINT8_MAX];
        const char* from = bytes;
        if (!m_stream) {
            if (!inMemory(size))
                return false;
            from = m_buffer + m_payload;
        } else if (!readBytes(bytes, size)) {
            return false;
        }
        unsigned taken = 0;
        if (!text.read(from, size, taken) || taken != size)
            return false;
        m_payload += size;
        return true;
    }
    /// Whether the part takes a text that cannot be read for none, which can be done in memory only: a stream has no
    /// way back.
    template <class Part> bool cutTextIsNone(const Part&) const {
        return !m_stream && requires {
            Part::kCutTextIsNone;
        };
    }

private:
    bool inMemory(unsigned size) const { return size <= m_size - m_payload && (m_buffer || size == 0); }

    bool readBytes(char* to, unsigned size) {
        try {
            return m_stream->read(to, size).good();
        } catch (const std::exception&) {
            return false;
        }
    }

    template <class Part> bool readFromStream(Part& part, unsigned size) {
        if constexpr (MovesItself<Part>) {
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

    const CPacketHeader* m_header;
    std::istream* m_stream = nullptr;
    const char* m_buffer = nullptr;
    unsigned m_size = 0;
    unsigned m_payload = 0;
    unsigned m_text = 0;
};

} // namespace Quorvex
