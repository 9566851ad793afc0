#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstdint>
#include <string_view>

namespace Quorvex {

class CContexts;
class CTraceCursor;

/// The frame of a trace that is open at a place in it.
struct TraceFrame {
    bool isTold = false;               ///< a packet before the place begins or ends a frame
    bool isOpen = false;               ///< the last of them begins one
    std::uint64_t offset = 0;          ///< of its TraceEnabled packet
    std::uint64_t length = kUnknown64; ///< that this tells; unknown where it does not
    std::uint32_t version = 0;         ///< likewise
    std::uint32_t config = 0;          ///< likewise, SFrameConfig::word()

    /// Takes note of what packet stands next.
    QUORVEX_API void note(const CTraceCursor& packet);
    /// Goes on with what is told behind.
    void join(const TraceFrame& next) {
        if (next.isTold)
            *this = next;
    }
};

/// What a reader needs to know at a place of a trace to go on there as if it had read all that stands before: a part of
/// the packets before, each in absolute form, that is
///   - the first Timestamp that tells the frequency of each clock,
///   - the definitions that hold there, and those of functions and processes that are undefined and still run,
///   - the last messages about each program, thread and function that was recorded (RecordedFact),
///   - the enters of the functions, interrupts and processes that are open,
///   - the last values of counters, variables and state machines, and of each bus one Signal packet with the last
///     values of all its lines,
/// and besides the contexts that relative packets are relative to, and the open frame.
///
/// Functions are open by threads, those of unknown threads by cores, as CallTimes has it; interrupts and processes by
/// cores. A leave that fits no enter changes nothing, and one that fits an outer enter ends what is open within. In one
/// place at most 65536 enters are kept, of processes the last 64. Of counters with indices 65536 values are kept in
/// all.
///
/// Serves walkInParts() as a part: one that knows nothing of what stands before it is made by the default constructor,
/// and joined to the one before. Used by one thread at a time. Memory grows with the definitions, with what has values,
/// and with what is open.
class QUORVEX_API TraceState {
public:
    /// What stands before the first packet that is noted.
    enum class Start : std::uint8_t {
        Unknown, ///< other packets, with whose state this is joined
        OfTrace, ///< nothing
    };
    explicit TraceState(Start start = Start::Unknown);
    TraceState(TraceState&& other) noexcept;
    TraceState& operator=(TraceState&& other) noexcept;
    ~TraceState();

    /// Takes note of the packet that stands next. Throws what CPacketFactory throws where memory is short.
    void note(const CTraceCursor& packet);
    /// Goes on with the state of what stands behind.
    void join(TraceState&& next);
    /// False where joined parts had so many leaves of what was entered before them that some were not kept. Then only a
    /// walk from front to back tells the state.
    bool isExact() const;

    /// Calls `take` with the bytes of each packet, with its text: first the clocks, then the definitions, then what
    /// happened, each in the order of the trace. A frame and sync packets are not among them.
    template <class Take> void eachPacket(Take take) const {
        writeTo([](void* to, std::string_view packet) { (*static_cast<Take*>(to))(packet); }, &take);
    }
    const CContexts& contexts() const; ///< as the cursor had them behind the last packet
    const TraceFrame& frame() const;   ///< the open frame

private:
    struct Contents;

    void writeTo(void (*take)(void* to, std::string_view packet), void* to) const;

    platform::Owned<Contents> m_contents;
};

} // namespace Quorvex
