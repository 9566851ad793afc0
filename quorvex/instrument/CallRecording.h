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

namespace Quorvex {

namespace detail {
/// The calling thread's stream. Plain memory at a fixed place, so that reading it costs neither a check for its
/// construction nor a call.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local CQVXInstrumentingStream* t_stream;
/// The system has a barrier that all threads notice. Set before the first stream is made.
extern constinit bool g_barrier;
} // namespace detail

/// A packet of a function, with its name if it has one, as bytes: made without memory from the program's allocator, and
/// at once where it is to stand.
struct CQVXInstrumentingStream::Function {
    tagTCode code;
    std::uint32_t id;
    std::string_view name;
    std::uint64_t address = kUnknown64; ///< where the function stands in the process

    static constexpr unsigned kPayload = CCoreContext::Len() + sizeof(id);
    static_assert(kPayload == CFunctionDefine::Len() && kPayload == CFunctionEnter::Len());

    /// The bytes of the packets of a text. No page holds a longer one than that of the limit.
    static unsigned sizeOfText(std::string_view text) {
        const auto length = static_cast<unsigned>(std::min<std::size_t>(text.size(), kPageSize));
        return static_cast<unsigned>(CCharStringSequence::StreamSize(length));
    }
    /// Puts the bytes of those packets; where the last one ends.
    static char* encodeText(char* to, std::string_view text) {
        return CCharStringSequence::writeText(to, reinterpret_cast<const unsigned char*>(text.data()),
                                              static_cast<unsigned>(text.size()));
    }

    unsigned size() const { return CPacketHeader::Len() + kPayload + (name.empty() ? 0 : sizeOfText(name)); }
    void encode(const Moment& moment, unsigned thread, char* to) const {
        *to++ = static_cast<char>(code);
        *to++ = kPayload;
        const auto store = [&to](auto value) {
            storeLittleEndian(to, value);
            to += sizeof value;
        };
        store(moment.tick);
        store(moment.processor);
        store(thread);
        store(address);
        store(id);
        if (!name.empty())
            encodeText(to, name);
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
    bool nested() const { return m_nested && !m_stream.m_closed.load() && !m_stream.m_broken; }

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
        return !stream.m_closed.load() && !stream.m_broken;
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

template <tagTCode Code> inline bool CQVXInstrumentingStream::recordCall(unsigned id, std::uint64_t address) noexcept {
    const Use use(*this);
    if (!use.granted()) [[unlikely]]
        return recordCallBeside(Code, id, address, use.nested());
    const Moment now = moment();
    const Function function{Code, id, {}, address}; // kept in registers: nobody is told where it stands
    char* const room = claimPlain(function.size());
    if (!room) [[unlikely]]
        return refuse();
    function.encode(now, SWCtx(), room);
    commitPlain(function.size());
    return keep(true);
}

} // namespace Quorvex
