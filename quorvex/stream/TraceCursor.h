#pragma once

/// Packets where they stand: a trace is walked through without an object for each packet.
///
///     CTraceCursor cursor(bytes);
///     while (cursor.next()) {
///         if (const auto enter = cursor.as<CFunctionEnter>())
///             count(enter->TgtFuncId(), enter->Tick());
///     }

#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketView.h"
#include "quorvex/platform/Atomic.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceAutoBuffer.h"
#include "quorvex/stream/TraceDamage.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace Quorvex {

class CTraceSourceBuffer;

/// Walks through a trace in memory, or through one that a source hands out block by block: plain or in pages, whose
/// fill and sync packets come like any other. It comes to the packets that CTraceReaderPlain makes, with their texts,
/// also in a trace that is damaged; what cannot be read is stepped over and counted.
///
/// What it tells of a packet holds until next() is called again. Used by one thread at a time; several may walk through
/// the same bytes. Memory does not grow with the trace, but with the longest text.
class QUORVEX_API CTraceCursor {
public:
    /// Over bytes that stay as they are. The first of them has that position in the trace; the contexts are what
    /// relative packets are relative to there.
    explicit CTraceCursor(std::string_view bytes, std::uint64_t position = 0, const CContexts& contexts = {});
    /// The same over what a source hands out from where it stands, which must outlive this: of so many bytes a block,
    /// which grows where a packet with its text has more. Throws std::bad_alloc.
    explicit CTraceCursor(CTraceSourceBuffer& source, std::uint64_t position = 0, const CContexts& contexts = {},
                          std::size_t block = kBlockSize);
    CTraceCursor(const CTraceCursor&) = delete;
    CTraceCursor& operator=(const CTraceCursor&) = delete;
    ~CTraceCursor();

    /// Goes to the next packet. False at the end: where no whole packet is left, or the source has failed. Throws what
    /// CPacketFactory throws where memory is short; it has not moved then.
    bool next() { return (hasSimple(m_next, m_limit) && (take(m_next), true)) || advance(); }

    /// Calls `visit(cursor)` for this packet after packet, until one ends at `end` or behind it, or next() would give
    /// false or throw. It does what a loop around next() does, in less time; `visit` may not move the cursor.
    template <class Visit> void walkTo(std::uint64_t end, const Visit& visit) {
        const unsigned char *at, *limit, *stop;
        const auto look = [&] {
            at = m_next;
            limit = m_limit;
            const std::uint64_t position = positionOf(at);
            const std::uint64_t wanted = position < end ? end - position : 0;
            stop = wanted < left() ? at + wanted : limit;
        };
        look();
        while (true) {
            if (at < stop && hasSimple(at, limit)) {
                at = take(at);
            } else {
                if (positionOf(at) >= end || !advance())
                    return;
                look();
            }
            visit(std::as_const(*this));
        }
    }

    tagTCode TraceCode() const { return tagTCode(m_at[0]); } ///< its kind
    /// Bytes of its payload: those that its kind has fields for. The header may announce more, which then is damage.
    unsigned Length() const { return m_fields; }
    /// Its payload, as it stands in the trace.
    const char* payload() const { return reinterpret_cast<const char*>(m_at) + CPacketHeader::Len(); }
    std::uint64_t offset() const { return positionOf(m_at); } ///< where it begins in the trace
    std::uint64_t end() const { return positionOf(m_next); }  ///< where it ends, with its text

    /// How the text behind a packet is.
    enum class Text : std::uint8_t {
        None,    ///< the kind has none
        Absent,  ///< there is none
        Whole,   ///< it is there
        Open,    ///< the trace goes on, or ends, where there should be more of it
        Counted, ///< it is there, and stands within the length that the header tells
    };
    Text textState() const { return m_text; } ///< that behind this one
    /// The text behind it; empty where there is none. Of a CharString packet, its own.
    std::string_view text() const;

    /// The context of a packet that carries one, also of a relative one: what it stands for after the last sync packet
    /// of its sort.
    template <class Context> std::optional<typename Context::Values> contextOf() const {
        return m_contexts.resolve<Context>(TraceCode(), payload());
    }
    /// Its time: the tick of its context, or of a field of its own. kUnknown64 when it has none.
    std::uint64_t tick() const {
        const KindFacts& facts = factsOf(TraceCode());
        if (facts.context != ContextSort::None && !facts.isRelative) // of all absolute contexts, the first field
            return checkedTick(loadLittleEndian<std::uint64_t>(payload()));
        return otherTick();
    }
    /// What relative packets are relative to from here on.
    const CContexts& contexts() const { return m_contexts; }

    /// The contents of a packet of that kind; none of any other. An absolute kind also takes its relative form.
    template <class Packet> std::optional<PacketView<Packet>> as() const {
        using Context = typename Packet::Context;
        const auto following = [this] { return HasFollowingText<PacketView<Packet>> ? text() : std::string_view(); };
        const tagTCode code = TraceCode();
        if (code == Packet::kCode)
            return std::make_optional<PacketView<Packet>>(payload(), m_fields, following());
        if constexpr (Context::Len() > 0 && !requires { typename Context::Absolute; }) {
            if (sortOfRelative(code) != ContextSort::None && factsOf(code).otherForm == Packet::kCode) {
                // The relative form differs in its context alone.
                const unsigned context = Context::Len() + factsOf(code).length - Packet::Len();
                return std::make_optional<PacketView<Packet>>(*contextOf<Context>(), payload() + context,
                                                              m_fields - context, following());
            }
        }
        return std::nullopt;
    }
    /// The packet as an object, which the caller owns; relative packets stay as they are. Throws as CPacketFactory
    /// does where memory is short.
    CPacket* packet() const;

    /// What was stepped over so far.
    const TraceDamage& damage() const { return m_damage; }
    /// Behind the last packet: bytes of the one that is cut there, if any.
    std::uint64_t left() const { return static_cast<std::uint64_t>(m_limit - m_next); }
    /// The code of the cut packet; Invalid when there is none.
    tagTCode cutCode() const { return m_next < m_limit ? tagTCode(*m_next) : Invalid; }

private:
    /// What is known of payloads of one length, by kind: fields in the low byte, above it one of these.
    enum Fit : std::uint16_t {
        NotAsked = 0,
        Refused = 0x100,  ///< no packet comes of it
        Accepted = 0x200, ///< one does
        Varying = 0x300,  ///< that depends on the bytes
    };

    /// Whether all that a header announces are fields, no text can follow, and it is no sync packet; false while that
    /// is not known.
    static bool isSimple(const unsigned char* header) {
        const auto both = loadLittleEndian<std::uint16_t>(reinterpret_cast<const char*>(header));
        return s_isSimple[both].relaxed();
    }
    /// Whether a simple packet stands there, before that limit.
    static bool hasSimple(const unsigned char* at, const unsigned char* limit) {
        return limit - at >= CPacketHeader::Len() && limit - at - CPacketHeader::Len() >= std::ptrdiff_t{at[1]} &&
               isSimple(at);
    }
    /// Goes to the simple packet there; its end.
    const unsigned char* take(const unsigned char* at) {
        m_fields = at[1];
        m_at = at;
        m_next = at + CPacketHeader::Len() + m_fields;
        m_text = Text::None;
        return m_next;
    }
    /// Whether and how the packet at m_next, which is there, can be made.
    unsigned fitOf(unsigned code, unsigned length);
    bool advance();
    std::uint64_t otherTick() const;
    /// Sees to it that so many bytes stand behind m_next.
    bool have(std::size_t count);
    bool refill();
    /// Looks for the text of the packet at m_next, which begins so many bytes behind that; moves `behind` to its end.
    /// False where the source fails on the way.
    bool findText(std::size_t& behind, Text& text);
    void addDamage(std::uint64_t from, std::uint64_t to);

    std::uint64_t positionOf(const unsigned char* at) const {
        return m_position + static_cast<std::uint64_t>(at - m_begin);
    }

    static platform::Atomic<std::uint16_t> s_fits[256][256];
    static platform::Atomic<bool> s_isSimple[0x10000]; ///< by the two bytes of a header

    const unsigned char* m_next;  ///< behind the packet and its text
    const unsigned char* m_limit; ///< behind the last byte that is there
    const unsigned char* m_at;    ///< the packet
    unsigned m_fields = 0;
    Text m_text = Text::None;
    const unsigned char* m_begin; ///< of the bytes that are there
    std::uint64_t m_position;     ///< of m_begin
    CContexts m_contexts;
    TraceDamage m_damage;
    mutable std::string m_joined; ///< a text of several CharString packets
    CTraceSourceBuffer* m_source = nullptr;
    std::string m_block; ///< of a source
};

/// The number of what a packet enters or leaves, of a kind that does: it is the last field of all of them.
inline std::uint32_t enteredIn(const CTraceCursor& packet) {
    return loadLittleEndian<std::uint32_t>(packet.payload() + packet.Length() - sizeof(std::uint32_t));
}

} // namespace Quorvex
