#pragma once

/// How a stream records that its thread enters or leaves a function, for the sources that have it inlined: nothing else
/// is called on the usual way.

#include "quorvex/format/PacketHeader.h"
#include "quorvex/format/TCodeInfo.h"
#include "quorvex/instrument/InstrumentingStream.h"
#include "quorvex/packets/SoftwareObjectPackets.h"
#include "quorvex/packets/StringPackets.h"
#include "quorvex/platform/Clock.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/platform/Processor.h"

#include <algorithm>
#include <atomic>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace Quorvex {

namespace detail {
/// The calling thread's stream. Plain memory at a fixed place, so that reading it costs neither a check for its
/// construction nor a call.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local CQVXInstrumentingStream* t_stream;
/// The system has a barrier that all threads notice. Set before the first stream is made.
extern constinit bool g_barrier;
} // namespace detail

/// A packet as its bytes: its fields behind what such packets begin with, and the text that follows it, if any. Made
/// without memory from the program's allocator, and at once where it is to stand.
template <class... Fields> struct CQVXInstrumentingStream::Bytes {
    enum class Begin : std::uint8_t { Context, Tick, Nothing };

    tagTCode code;
    std::tuple<Fields...> fields; ///< numbers, and bytes as a std::string_view; 255 bytes at most, with the beginning
    std::string_view text{};
    Begin begin = Begin::Context;
    std::uint64_t address = kUnknown64; ///< of the context: where the function stands in the process

    unsigned size() const { return CPacketHeader::Len() + payload() + (text.empty() ? 0 : sizeOfText()); }
    void encode(const Moment& moment, unsigned thread, char* to) const {
        const auto store = [&to](auto value) {
            if constexpr (std::is_same_v<decltype(value), std::string_view>) {
                to = std::copy(value.begin(), value.end(), to);
            } else {
                storeLittleEndian(to, value);
                to += sizeof value;
            }
        };
        store(static_cast<std::uint8_t>(code));
        store(static_cast<std::uint8_t>(payload()));
        if (begin != Begin::Nothing)
            store(moment.tick);
        if (begin == Begin::Context) {
            store(moment.processor);
            store(thread);
            store(address);
        }
        std::apply([&store](auto... field) { (store(field), ...); }, fields);
        if (!text.empty())
            CCharStringSequence::writeText(to, reinterpret_cast<const unsigned char*>(text.data()),
                                           static_cast<unsigned>(text.size()));
    }

private:
    static unsigned sizeOf(std::string_view bytes) { return static_cast<unsigned>(bytes.size()); }
    template <class Number> static unsigned sizeOf(Number) { return sizeof(Number); }

    unsigned payload() const {
        constexpr unsigned kBefore[] = {CCoreContext::Len(), sizeof(Moment::tick), 0}; // by Begin
        const unsigned fixed = kBefore[static_cast<unsigned>(begin)];
        return std::apply([fixed](auto... field) { return (fixed + ... + sizeOf(field)); }, fields);
    }
    /// The bytes of the packets of the text. No page holds a longer one than that of the limit.
    unsigned sizeOfText() const {
        const auto length = static_cast<unsigned>(std::min<std::size_t>(text.size(), kPageSize));
        return static_cast<unsigned>(CCharStringSequence::StreamSize(length));
    }
};

/// Marks the stream as in use while its thread works on it, and tells whether it may. A use inside another one, that of
/// a signal handler, finds the mark and must leave the page alone.
///
/// The other side, retire(), closes the stream, passes a barrier that all threads notice, and then waits until no use
/// is left. So the mark costs two plain stores; only where the system has no such barrier must the mark be one itself.
class CQVXInstrumentingStream::Use {
public:
    explicit Use(CQVXInstrumentingStream& stream)
        : m_stream(stream),
          m_nested(stream.m_inUse.load(std::memory_order_relaxed)),
          m_granted(!m_nested && begin(stream)) {}
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() {
        if (m_nested) [[unlikely]]
            return;
        if (m_granted && hasBeside()) [[unlikely]]
            m_stream.takeIn();
        end(m_stream);
        if (m_granted && hasBeside()) [[unlikely]]
            m_stream.takeInLate(); // a handler has come between the two
    }

    bool granted() const { return m_granted; }
    bool outermost() const { return !m_nested; }
    /// Inside another use, of a stream that takes packets.
    bool nested() const { return m_nested && m_stream.takesPackets(); }

    /// Marks it where none does; whether it may be used. end() is called in any case.
    static bool begin(CQVXInstrumentingStream& stream) {
        // retire() must not meet the marks of a thread that goes on asking and is refused.
        if (stream.m_closed.load(std::memory_order_relaxed)) [[unlikely]]
            return false;
        if (detail::g_barrier) [[likely]] {
            stream.m_inUse.store(true, std::memory_order_relaxed);
            std::atomic_signal_fence(std::memory_order_seq_cst);
        } else {
            stream.m_inUse.exchange(true);
        }
        return stream.takesPackets();
    }
    static void end(CQVXInstrumentingStream& stream) {
        stream.m_inUse.store(false, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

private:
    bool hasBeside() const { return m_stream.m_besidePage.load(std::memory_order_relaxed); }

    CQVXInstrumentingStream& m_stream;
    const bool m_nested;
    const bool m_granted;
};

inline CQVXInstrumentingStream* CQVXInstrumentingStream::ofThread() {
    return detail::t_stream ? detail::t_stream : get_Instance();
}

inline CQVXInstrumentingStream::Moment CQVXInstrumentingStream::Moment::now() {
    const unsigned processor = platform::processorHere();
    return {platform::g_recordingClock.now(), processor};
}

inline CQVXInstrumentingStream::Moment CQVXInstrumentingStream::moment() {
    const Moment now = Moment::now();
    if (m_besidePage.load(std::memory_order_relaxed)) [[unlikely]]
        return momentBehindOthers(); // a handler came before that time was read
    return now;
}

// What follows keeps packets in registers: only what is rare tells anybody where one stands.

inline CQVXInstrumentingStream::Function CQVXInstrumentingStream::call(tagTCode code, unsigned id,
                                                                       std::uint64_t address) {
    return {code, {id}, {}, Function::Begin::Context, address};
}

template <class Packet> [[gnu::always_inline]] inline bool CQVXInstrumentingStream::recordNow(Packet packet) {
    const Moment now = moment();
    const unsigned size = packet.size();
    const bool isPlain = packet.text.empty();
    char* const room = isPlain ? claimPlain(size) : claim(size);
    if (!room) [[unlikely]]
        return refuse();
    packet.encode(now, SWCtx(), room);
    isPlain ? commitPlain(size) : commit(size);
    return keep(true);
}

template <class Packet> [[gnu::always_inline]] inline bool CQVXInstrumentingStream::record(Packet packet) {
    const Use use(*this);
    if (!use.granted()) [[unlikely]]
        return recordBytesBeside(packet, use.nested());
    return recordNow(packet);
}

template <tagTCode Code> inline bool CQVXInstrumentingStream::recordCall(unsigned id, std::uint64_t address) noexcept {
    const Use use(*this);
    if (!use.granted()) [[unlikely]]
        return recordCallBeside(Code, id, address, use.nested());
    return recordNow(call(Code, id, address));
}

template <class Write> bool CQVXInstrumentingStream::recordBeside(unsigned size, Write&& write) {
    std::uint64_t tick = 0;
    char* room = m_page.reserve(size, tick);
    const bool whole = room && write(tick, room);
    if (room)
        m_page.finish(room, whole);
    if (!whole)
        ++m_missed;
    m_besidePage = true;
    return whole || refuse();
}

template <class Packet>
[[gnu::noinline, gnu::cold]] bool CQVXInstrumentingStream::recordBytesBeside(Packet packet, bool allowed) {
    if (!allowed)
        return refuse();
    return recordBeside(packet.size(), [this, &packet](std::uint64_t tick, char* room) {
        packet.encode({tick, HWCtxId()}, SWCtx(), room);
        return true;
    });
}

template <class... Packets>
bool CQVXInstrumentingStream::define(detail::IdSet& known, unsigned id, Packets... packets) {
    const Use use(*this);
    if (!use.granted())
        return (recordBytesBeside(packets, use.nested()) && ...);
    return !known.insert(id) || (recordNow(packets) && ...);
}

} // namespace Quorvex
