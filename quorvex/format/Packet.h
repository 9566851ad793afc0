#pragma once

#include "quorvex/format/PacketHeader.h"
#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <new>

namespace Quorvex {

/// The base of every packet: a header whose operations are virtual. The dynamic class of a packet is always the class
/// of its type code. A packet belongs to one thread at a time.
///
/// Packets on the heap come from free lists of the thread that makes them, and go to those of the thread that releases
/// them, whatever class of a host they are of; behind the lists stands the program's own operator new. A thread keeps
/// at most four megabytes, until it ends. Arrays and classes of extended alignment go to the program's operator new
/// directly.
class QUORVEX_API CPacket : public CPacketHeader {
public:
    CPacket() = default;
    CPacket(tagTCode code, std::uint8_t length) : CPacketHeader(code, length) {}
    CPacket(const CPacketHeader& header) : CPacketHeader(header) {}
    CPacket(const CPacket&) = default;
    CPacket& operator=(const CPacket&) = default;

    static constexpr std::uint8_t Len() { return CPacketHeader::Len(); }

    // The order of the virtual operations is part of the interface.
    virtual ~CPacket() = default;
    virtual tagTCode TraceCode() const { return CPacketHeader::TraceCode(); }
    /// Payload length in bytes: the header's second byte.
    virtual unsigned Length() const { return CPacketHeader::Length(); }
    /// Bytes that the packet occupies in a stream, with the texts that follow it.
    virtual unsigned StreamSize() const { return Length() + CPacketHeader::Len(); }
    /// Reads a whole packet, header included; returns the bytes consumed, or 0. On failure nothing changes.
    virtual unsigned read(const char* buf, unsigned size) { return CPacketHeader::read(buf, size); }
    virtual bool read(std::istream& in);
    /// Writes a whole packet; returns the bytes written, or 0 when they do not fit.
    virtual unsigned write(char* buf, unsigned size) { return CPacketHeader::write(buf, size); }
    virtual bool write(std::ostream& out);

    // By the free lists. The forms with a place or an alignment are as the program's own, which these hide.
    // NOLINTNEXTLINE(misc-new-delete-overloads): the delete that is told the size is its match
    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void* operator new(std::size_t size, std::align_val_t alignment) { return ::operator new(size, alignment); }
    static void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& none) noexcept {
        return ::operator new(size, alignment, none);
    }
    static void operator delete(void* packet, std::size_t size) noexcept;
    static void operator delete(void* packet, const std::nothrow_t& none) noexcept;
    static void operator delete(void*, void*) noexcept {}
    static void operator delete(void* packet, std::size_t, std::align_val_t alignment) noexcept {
        ::operator delete(packet, alignment);
    }
    static void operator delete(void* packet, std::align_val_t alignment, const std::nothrow_t& none) noexcept {
        ::operator delete(packet, alignment, none);
    }
};

} // namespace Quorvex
