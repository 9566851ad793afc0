#pragma once

/// What traces tell, as tables whose columns other programs take without a copy:
///
///     ArrowArrayStream stream;
///     TraceTables({"thread_1.qvx", "thread_2.qvx"}).open(TraceTable::Spans, {}, stream);
///
/// The columns are those of tableFacts(), in its order. Batches come file by file and in the order of each file; a span
/// stands where it ends. Where something is not known, or told by nobody, a value is null. Ticks and nanoseconds of
/// 2^63 and above are null.
///
/// Names are dictionaries: each column of names has one for the whole stream, which all its batches share, so no two
/// batches use different indices. Names that are given anywhere in the files hold everywhere in them (CTraceNames). A
/// first walk through the files, in several threads, finds them, and the types of counters; only columns that need that
/// ask for it, and it is done once for all streams of one TraceTables.

#include "quorvex/analysis/CallSummary.h"
#include "quorvex/analysis/TableFacts.h"
#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct ArrowArrayStream;

namespace Quorvex {

class ReadWatch;

/// What of a table is wanted, and how.
struct TableOptions {
    std::vector<std::string> columns{}; ///< those only, in that order; none: all
    /// Of each file, pages from that one on (PageFormat.h); what has no pages stands on the first. Not of what is in
    /// memory.
    std::uint64_t firstPage = 0;
    std::uint64_t pages = UINT64_MAX; ///< so many, as far as there are
    /// Rows of spans that reach into it, and other rows with a tick within. Where the pages of a file follow one
    /// another in time, only those are read for the latter that can have some; what spans reach into, all pages tell.
    TickWindow window{};
    std::vector<std::string> kinds{}; ///< rows of packets of those kinds only, as "FunctionEnter"; none: of all
    std::uint64_t rows = 65536;       ///< in a batch, at most
    unsigned threads = 0;             ///< that walk at a time; 0: one a processor
    std::uint64_t portion = 16;       ///< pages that a thread walks through at a time, whose rows are kept in memory
    ReadWatch* watch = nullptr;       ///< told of the bytes that are read; must outlive the stream
};

/// Where a trace is.
struct TableInput {
    /// A regular file, of whatever form.
    TableInput(std::string file) : path(std::move(file)) {}
    TableInput(const char* file) : path(file) {}
    /// A part of one that is in memory: some of its pages.
    TableInput(std::string file, std::shared_ptr<const std::string> part, std::uint64_t at)
        : path(std::move(file)), bytes(std::move(part)), position(at) {}

    std::string path;                         ///< its name, also in errors
    std::shared_ptr<const std::string> bytes; ///< in place of the file's own; null: the file is read
    std::uint64_t position = 0;               ///< of the first of those bytes in the file
};

/// Makes tables of the traces in files.
///
/// Of a range of pages, spans are given that are entered or left within: has_enter and has_leave tell which of both is
/// in the range. Depths then count from where the range begins, and are negative below that; parents that are entered
/// before are null. What is open at the ends of a range is joined by whoever has the ranges before and behind:
///
///   - of a thread, the rows without an enter or without a leave, by enter_offset or leave_offset, are a word of leaves
///     and enters. It is what is left when an enter and a leave of the same function that follow one another are
///     taken out until there are none. Words of neighbouring ranges are joined in the same way, in any order of joins.
///   - only at last, over all ranges, what then is left is a fault of the trace: a leave ends the innermost call of its
///     function, and what is open above ends with it; one without such a call is not a call at all.
///   - `self` of a call that crosses is its duration less `callee_ticks` of all of its rows, where a row without enter
///     and leave tells what has been seen, behind the thread's last leave in the range, of a call that is open
///     throughout, and less the durations of the calls that were joined at its level.
///
/// Of whole files all of this is done: rows without an enter are leaves of what had not been entered, and those without
/// a leave end with the call around them, or with the last call packet of their thread. Durations, self times and
/// depths are those of CallTimes.
///
/// A stream reads as it is asked for batches, in several threads at a time, and keeps order. Memory does not grow with
/// the trace, but with definitions, and with calls that are open. It may be released before its end, and outlive this.
/// Damage is stepped over, as TraceFile does; the losses tell of it. What cannot be read is an error of the stream,
/// EIO, whose text is that of the exception; a std::bad_alloc is ENOMEM. It stays. Used by one thread at a time, as is
/// each stream; different streams may be used at once.
class QUORVEX_API TraceTables {
public:
    /// Of these files. With `definitions`, which are what definitions() gave for each of them, they are not walked
    /// through for names.
    explicit TraceTables(std::vector<TableInput> files, std::vector<std::string> definitions = {});
    TraceTables(TraceTables&&) noexcept;
    TraceTables& operator=(TraceTables&&) noexcept;
    ~TraceTables();

    /// Begins a table; `out` is overwritten. No file is opened before the first batch is asked for. Throws
    /// std::invalid_argument where the table has no such column, or there is no such kind.
    void open(TraceTable table, const TableOptions& options, ArrowArrayStream& out) const;
    /// What a file, by its place in the list, defines, as the bytes of a small trace: names, clocks, and as many values
    /// of counters as tell their type. Can be kept, and given to others. Throws what TraceFile throws.
    std::string definitions(std::size_t file, unsigned threads = 0) const;

private:
    struct Shared;
    std::shared_ptr<Shared> m_shared;
};

} // namespace Quorvex
