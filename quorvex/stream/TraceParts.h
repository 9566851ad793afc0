#pragma once

/// A trace that several threads walk through, each a part of it at a time; what comes of the parts is joined in the
/// order of the trace. It is what one walk from front to back gives, of any bytes.
///
///     struct Enters {
///         std::uint64_t count = 0;
///         void join(Enters&& next) { count += next.count; }
///     };
///     Enters enters;
///     walkInParts(bytes, enters, [](Enters& part, const CTraceCursor& packet) {
///         part.count += packet.TraceCode() == FunctionEnter;
///     });
///
/// Parts begin where pages do. Whether one begins with a packet there, and what its relative packets are relative to,
/// is learned from the page before it, and compared with how the walk through all that stands before has ended, once
/// that is known. Where the two differ, because the trace has no pages or is damaged there, the part is walked through
/// once more, from where that walk has ended.

#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceCursor.h"
#include "quorvex/stream/TraceDamage.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

class CTraceSourceBufferMapped;

/// How a walk is shared out.
struct TraceShares {
    unsigned threads = 0; ///< that walk, the calling one among them; 0: one a processor
    std::uint64_t least =
        std::uint64_t{32} * kPageSize; ///< bytes of a part; what is left of a shorter one is its neighbour's
    std::size_t most = 64;             ///< parts
    std::uint64_t until = UINT64_MAX;  ///< the walk ends with the packet that ends there or behind
};

/// A trace that is open at a place, from which a cursor walks on.
struct QUORVEX_API TraceAt {
    /// As the cursor of these is made.
    TraceAt(std::string_view bytes, std::uint64_t position, const CContexts& contexts)
        : cursor(bytes, position, contexts) {}
    TraceAt(platform::Owned<CTraceSourceBuffer> bytes, std::uint64_t position, const CContexts& contexts,
            std::size_t block = kBlockSize)
        : source(std::move(bytes)), cursor(*source, position, contexts, block) {}
    virtual ~TraceAt();
    virtual void passed() {} ///< what the cursor has passed is not needed any more

    platform::Owned<CTraceSourceBuffer> source; ///< null where the bytes are in memory
    CTraceCursor cursor;                        ///< goes through what is there
};

/// Where a walk has ended.
struct TraceWalk {
    std::uint64_t end = 0;      ///< behind the last packet
    CContexts contexts;         ///< what relative packets are relative to there
    TraceDamage damage;         ///< what was stepped over
    std::uint64_t left = 0;     ///< bytes of a packet that is cut there
    tagTCode cutCode = Invalid; ///< the code of that packet; Invalid when there is none
    bool hasFailed = false;     ///< reading has

    QUORVEX_API static TraceWalk of(const TraceAt& trace); ///< the walk of its cursor
};

/// Opens a trace at a position, with what relative packets are relative to there. Called by several threads at once.
class QUORVEX_API OpensTrace {
public:
    virtual ~OpensTrace();
    virtual platform::Owned<TraceAt> at(std::uint64_t position, const CContexts& contexts) const = 0; ///< never null
};
/// By a function that is called with the two.
template <class Open> class OpensTraceBy final : public OpensTrace {
public:
    /// By this one.
    explicit OpensTraceBy(Open open) : m_open(std::move(open)) {}
    platform::Owned<TraceAt> at(std::uint64_t position, const CContexts& contexts) const override {
        return m_open(position, contexts);
    }

private:
    Open m_open;
};

namespace detail {

/// What is done with parts, by their numbers from 1 on, and with the trace as a whole.
class QUORVEX_API PartsWork {
public:
    virtual ~PartsWork();
    virtual void begin(std::size_t parts) = 0; ///< there are so many
    /// Walks on with a cursor until it stands at `end` or behind it, or can no more. Called by several threads at once,
    /// each for a part of its own.
    virtual void walkPart(std::size_t part, CTraceCursor& cursor, std::uint64_t end) = 0;
    virtual void walkWhole(CTraceCursor& cursor, std::uint64_t end) = 0; ///< the same, for the whole
    virtual void join(std::size_t part) = 0;                             ///< the whole goes on with that part
    virtual void drop(std::size_t part) = 0;                             ///< the part was walked in vain, or not at all
};

template <class Part, class Visit> class PartsOf final : public PartsWork {
public:
    PartsOf(Part& whole, const Visit& visit) : m_whole(whole), m_visit(visit) {}

    void begin(std::size_t parts) override { m_parts.resize(parts); }
    void walkPart(std::size_t part, CTraceCursor& cursor, std::uint64_t end) override {
        std::optional<Part> own; // not beside those of other threads
        own.swap(m_parts[part]);
        walk(own ? *own : own.emplace(), cursor, end);
        own.swap(m_parts[part]);
    }
    void walkWhole(CTraceCursor& cursor, std::uint64_t end) override { walk(m_whole, cursor, end); }
    void join(std::size_t part) override {
        m_whole.join(std::move(*m_parts[part]));
        drop(part);
    }
    void drop(std::size_t part) override { m_parts[part].reset(); }

private:
    void walk(Part& part, CTraceCursor& cursor, std::uint64_t end) const {
        cursor.walkTo(end, [&](const CTraceCursor& packet) { m_visit(part, packet); });
    }

    Part& m_whole;
    const Visit& m_visit;
    std::vector<std::optional<Part>> m_parts;
};

/// Walks from where `first` stands to the end of a trace of about that size; of size 0, with `first` alone.
QUORVEX_API TraceWalk walkInParts(TraceAt& first, std::uint64_t size, const OpensTrace& open, PartsWork& work,
                                  const TraceShares& shares);
QUORVEX_API TraceWalk walkInParts(std::string_view trace, PartsWork& work, const TraceShares& shares);
QUORVEX_API TraceWalk walkInParts(const CTraceSourceBufferMapped& trace, PartsWork& work, const TraceShares& shares);

} // namespace detail

/// Walks through a trace in memory, or in a mapped file, whose memory is released as parts of it are passed. Calls
/// `visit(part, cursor)` for each packet, where `part` is `whole` or a `Part` made by its default constructor, which
/// knows nothing of what stands before; `whole.join(std::move(part))` adds what follows on it. Packets of different
/// parts are visited by several threads at once, and what their cursors have stepped over counts from where the part
/// begins. What `visit` throws comes out of here as from one walk, with the packets before it visited for `whole`.
template <class Trace, class Part, class Visit>
TraceWalk walkInParts(const Trace& trace, Part& whole, const Visit& visit, const TraceShares& shares = {}) {
    detail::PartsOf<Part, Visit> work(whole, visit);
    return detail::walkInParts(trace, work, shares);
}

} // namespace Quorvex
