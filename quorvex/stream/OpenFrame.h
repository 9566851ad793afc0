#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/format/FrameConfig.h"
#include "quorvex/format/PacketHeader.h"
#include "quorvex/platform/Export.h"

#include <array>
#include <cstdint>

namespace Quorvex {

class CTraceEnabledPayload;
class CTraceSinkBuffer;

namespace detail {

/// A trace-enabled packet that has been written and waits for its frame length: the bytes from its first to the last of
/// its trace-disabled packet. Only packets with all their fields have room for one.
class QUORVEX_API OpenFrame {
public:
    static constexpr unsigned kSize = CPacketHeader::Len() + 16;
    /// Where in the packet the length stands: behind the version.
    static constexpr unsigned kLengthAt = CPacketHeader::Len() + sizeof(std::uint32_t);
    using Bytes = std::array<char, kSize>;

    OpenFrame() = default;
    OpenFrame(std::uint64_t position, const CTraceEnabledPayload& enabled);

    explicit operator bool() const { return m_position != kUnknown64; }
    /// Of the packet's first byte, in the trace.
    std::uint64_t position() const { return m_position; }
    std::uint64_t end() const { return m_position + kSize; }
    bool overlaps(std::uint64_t from, std::uint64_t to) const { return *this && from < end() && m_position < to; }

    /// The packet for a frame that ends there. The length is unknown when that is before its beginning.
    Bytes closed(std::uint64_t frameEnd) const;
    /// Puts that packet in its place in a target, which then goes on at `next`. False when the target does not take it.
    bool closeIn(CTraceSinkBuffer& target, const Bytes& packet, std::uint64_t next) const;

private:
    std::uint64_t m_position = kUnknown64; ///< unknown: none waits
    std::uint32_t m_version = 0;
    SFrameConfig m_config;
};

} // namespace detail

} // namespace Quorvex
