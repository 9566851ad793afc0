#pragma once

/// Calls as rows, out of packets that several threads walk through.
///
/// Of a piece of a trace, a thread's enters and leaves are a word. An enter that is followed by the leave of the same
/// function is a call whatever stands before and behind; it becomes a row, and is taken out. What then is left, pieces
/// join in their order: only there is decided what a leave ends that follows no enter of its function.

#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TableFile.h"
#include "quorvex/stream/TraceCursor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Quorvex::detail {

/// A call that is entered.
struct OpenCall {
    std::uint32_t id;
    std::uint32_t core;
    std::uint64_t from;   ///< tick
    std::uint64_t offset; ///< of its enter
    std::uint64_t callees = 0;
    std::int64_t process;   ///< on its core, or one of SpanTable's
    std::int64_t depth = 0; ///< once it is known
};

class SpanTable {
public:
    class Piece;

    explicit SpanTable(const TableFile& file) : m_file(file) {}
    /// Adds the rows of the next piece; later ones may be needed to complete them, but not to change them.
    void take(Piece&& piece, Batches& rows);
    /// Adds those of what is still open.
    void finish(Batches& rows);
    const TableFile& file() const { return m_file; }

    static constexpr std::int64_t kNoProcess = -1;
    static constexpr std::int64_t kProcessBefore = -2; ///< that which runs on the core where the piece begins

private:
    friend class Piece;

    /// A row.
    struct Span {
        std::uint64_t thread; ///< its key
        std::uint32_t core;
        std::int64_t process;
        std::uint32_t id;
        std::uint64_t from = kUnknown64;
        std::uint64_t to = kUnknown64;
        std::uint64_t callees = 0;
        std::int64_t depth = 0;
        std::int64_t parent = kNoParent;
        std::uint64_t enter = kUnknown64; ///< offset; none: the enter is not there
        std::uint64_t leave = kUnknown64; ///< likewise
    };
    struct Thread {
        std::vector<OpenCall> stack;
        std::vector<OpenCall> fixed;     ///< of a range, entered below a leave that is not theirs
        std::int64_t level = 0;          ///< on which the stack stands
        std::uint64_t throughout = 0;    ///< of a range, callees of the call below the stack
        std::uint64_t last = kUnknown64; ///< tick
    };

    static constexpr std::int64_t kNoParent = -1;
    static std::uint64_t lengthOf(const Span& span) {
        return span.from == kUnknown64 || span.to == kUnknown64 ? kUnknown64
               : span.to > span.from                            ? span.to - span.from
                                                                : 0;
    }
    bool isWithin(const Span& span) const;
    void set(TableBatch& rows, std::size_t row, const Span& span) const;
    void add(Batches& rows, const Span& span) const;
    /// The innermost call of a thread has ended.
    Span end(Thread& thread, std::uint64_t key, std::uint64_t tick);
    void count(Thread& thread, std::uint64_t ticks);

    const TableFile& m_file;
    Directory<std::uint64_t, Thread> m_threads;
    Directory<std::uint32_t, std::int64_t> m_processes; ///< by core

    struct Edits;
    struct Event;
    struct PieceThread;

    std::int64_t processOn(std::uint32_t core, std::int64_t process) const;
    /// Goes on with what is left of a thread's word.
    void join(Piece& piece, std::uint64_t key, PieceThread& its, Edits& edits);
    void leave(Piece& piece, Thread& thread, std::uint64_t key, const Event& event, Edits& edits);
    /// Sets what rows lack, as far as it is known where the piece begins.
    void complete(Piece& piece) const;
    void rebuild(Piece& piece, Edits& edits, Batches& rows) const;
};

/// What is left of the word of a thread, but for the enters behind its last leave.
struct SpanTable::Event {
    std::uint64_t callees; ///< of the call on whose level the word stands before it
    std::optional<OpenCall> enter;
    std::size_t row = 0;       ///< of a leave
    std::uint32_t id = 0;      ///< likewise
    std::uint64_t tick = 0;    ///< likewise
    std::uint64_t offset = 0;  ///< likewise
    std::uint32_t core = 0;    ///< likewise
    std::int64_t process = 0;  ///< likewise
    std::uint32_t segment = 0; ///< which begins behind it
};

/// A thread in a piece.
struct SpanTable::PieceThread {
    std::vector<Event> word;
    std::vector<OpenCall> open; ///< behind it
    std::uint64_t callees = 0;  ///< of the call below these
    std::uint64_t last = kUnknown64;
    std::uint32_t first = 0;   ///< its first segment
    std::uint32_t segment = 0; ///< its last one
};

/// What stands next to one another, and may be walked through without what is before.
class SpanTable::Piece {
public:
    Piece() = default;
    Piece(Piece&&) = default;

    void note(const SpanTable& table, const CTraceCursor& packet);

private:
    friend class SpanTable;

    /// Where rows are complete but for what stands below.
    struct Segment {
        std::int64_t depth = 0;
        std::int64_t parent = kNoParent;
    };
    /// What a row lacks.
    struct Lack {
        std::uint32_t segment;
        std::uint32_t core; ///< whose process it is
        bool isOutermost;   ///< in its segment
        bool isOfProcess;
    };
    static constexpr std::uint32_t kNoSegment = ~0U;

    PieceThread& threadOf(std::uint32_t thread, std::uint32_t core);
    std::int64_t processOn(std::uint32_t core);
    std::size_t add(const SpanTable& table, const Span& span, const Lack& lack);
    TableBatch& batchOf(std::size_t& row);

    Directory<std::uint64_t, PieceThread> m_threads;
    PieceThread* m_last = nullptr;
    std::uint64_t m_lastKey = 0;
    std::vector<Segment> m_segments;
    std::vector<Lack> m_lacks;
    Batches m_rows; ///< all full but for the last
    Directory<std::uint32_t, std::int64_t> m_processes;
};

} // namespace Quorvex::detail
