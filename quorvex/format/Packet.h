#pragma once

#include "quorvex/format/PacketHeader.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <iosfwd>

namespace Quorvex {

/// The base of every packet: a header whose operations are virtual. The dynamic class of a packet is always the class
/// of its type code. A packet belongs to one thread at a time.
class QUORVEX_API CPacket : public CPacketHeader {
public:
    CPacket() = default;
    CPacket(tagTCode code, std::uint8_t length) : CPacketHeader(code, length) {}
    CPacket(const CPacketHeader& header) : CPacketHeader(header) {}
    CPacket(const CPacket&) = default;
    CPacket& operator=(const CPacket&) = default;

    static constexpr std::uint8_t Len() { return CPacketHeader::Len(); }

    // The order of the virtual operations is part of the interface.
    virtual ~CPacket();
    virtual tagTCode TraceCode() const { return CPacketHeader::TraceCode(); }
    /// Payload length in bytes: the header's second byte.
    virtual unsigned Length() const { return CPacketHeader::Length(); }
    /// Bytes that the packet occupies in a stream, with the texts that follow it.
    virtual unsigned StreamSize() const { return Length() + CPacketHeader::Len(); }
    /// Reads a whole packet, header included; returns the bytes consumed, or 0. On failure nothing changes.
    virtual unsigned read(const char* buf, unsigned size) { return CPacketHeader::read(buf, size); }
    virtual bool read(std::istream& in) { return CPacketHeader::read(in); }
    /// Writes a whole packet; returns the bytes written, or 0 when they do not fit.
    virtual unsigned write(char* buf, unsigned size) { return CPacketHeader::write(buf, size); }
    virtual bool write(std::ostream& out) { return CPacketHeader::write(out); }
};

} // namespace Quorvex
