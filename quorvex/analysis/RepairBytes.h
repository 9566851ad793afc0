#pragma once

/// The bytes of a trace that may be damaged anywhere, for those that repair traces or look for them.

#include "quorvex/format/Context.h"
#include "quorvex/format/PacketHeader.h"
#include "quorvex/format/TCodeInfo.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/PageFormat.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Quorvex {

class CTraceSourceBuffer;

namespace detail {

constexpr unsigned kHeader = CPacketHeader::Len();
constexpr unsigned kMostBytes = kHeader + UINT8_MAX; ///< of a packet

constexpr unsigned lengthOf(ContextSort sort) {
    return sort == ContextSort::Core ? CCoreContext::Len() : CBusContext::Len();
}
static_assert(CBusContext::Len() == CSystemContext::Len());

/// Whether two ticks can be of one trace, as far as that can be told.
inline bool isNear(std::uint64_t one, std::uint64_t other) {
    constexpr std::uint64_t kFar = std::uint64_t{1} << 40;
    return one != kUnknown64 && other != kUnknown64 && (one > other ? one - other : other - one) < kFar;
}

inline tagTCode codeAt(std::string_view bytes) {
    return tagTCode(static_cast<unsigned char>(bytes[0]));
}
inline unsigned lengthAt(std::string_view bytes) {
    return static_cast<unsigned char>(bytes[1]);
}

/// The tick that a packet of that code tells in full where its payload begins; kUnknown64 where it tells none.
std::uint64_t fullTickAt(std::string_view packet);

inline bool isPadding(std::string_view bytes) {
    return bytes.find_first_not_of('\x80') == bytes.npos;
}

/// The bytes of a source, of which a part can be looked at that moves on. Positions count from where the trace begins.
class RepairWindow {
public:
    RepairWindow(CTraceSourceBuffer& source, const std::string& name, std::uint64_t from, std::uint64_t to)
        : m_source(source), m_name(name), m_from(from), m_left(to - from), m_isAtStart(from > 0) {}

    /// Sees to it that the bytes from `keep` to before `to` are there, those before may go. False where the source ends
    /// before.
    bool reach(std::uint64_t keep, std::uint64_t to) {
        if (to > m_end && !m_isEnded)
            refill(keep);
        return to <= m_end;
    }
    std::uint64_t end() const { return m_end; }   ///< behind the last byte that is there
    bool isEnded() const { return m_isEnded; }    ///< there is nothing behind it
    std::uint64_t from() const { return m_from; } ///< where the trace begins in the source
    std::string_view at(std::uint64_t position, std::uint64_t limit = kUnknown64) const {
        return {m_bytes.get() + indexOf(position), static_cast<std::size_t>(std::min(limit, m_end) - position)};
    }

    static constexpr std::size_t kSize = 17 * std::size_t{kPageSize};

private:
    std::size_t indexOf(std::uint64_t position) const { return static_cast<std::size_t>(position - m_begin); }

    void refill(std::uint64_t keep);

    CTraceSourceBuffer& m_source;
    const std::string& m_name;
    std::uint64_t m_from;
    std::uint64_t m_left;
    bool m_isAtStart; ///< it is to be gone to
    std::unique_ptr<char[]> m_bytes = std::make_unique_for_overwrite<char[]>(kSize);
    std::uint64_t m_begin = 0;
    std::uint64_t m_end = 0;
    bool m_isEnded = false;
};

} // namespace detail

} // namespace Quorvex
