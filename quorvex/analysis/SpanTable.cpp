#include "quorvex/analysis/SpanTable.h"

#include "quorvex/analysis/TableColumns.h"
#include "quorvex/packets/SoftwareObjectPackets.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Quorvex::detail {

namespace {

using columns::at;
using columns::kSpans;

constexpr std::uint32_t kNoFunction = CFunctionEnterPayload::kNoFunction;
constexpr std::uint32_t kNoCore = ~0U;

/// Of a thread that is not known, what runs on a core is taken for one.
constexpr std::uint64_t kUnknownThread = std::uint64_t{1} << 32;

bool isLeftBy(const OpenCall& call, std::uint32_t id) {
    return call.id == id || id == kNoFunction;
}

} // namespace

bool SpanTable::isWithin(const Span& span) const {
    const TickWindow& window = m_file.window;
    const bool isEarly = span.from == kUnknown64 || span.from < window.from;
    return !(span.from != kUnknown64 && span.from >= window.to) && !(isEarly && span.to <= window.from);
}

void SpanTable::set(TableBatch& rows, std::size_t row, const Span& span) const {
    const std::uint64_t length = lengthOf(span);
    const std::uint64_t self = length == kUnknown64 ? length : length - std::min(span.callees, length);
    const auto number = [&](unsigned column, std::int64_t value, bool isKnown) {
        if (isKnown)
            rows[column].setNumber(row, value);
        else
            rows[column].setNull(row);
    };
    rows[at(kSpans, "file")].setNumber(row, m_file.number);
    m_file.setThread<kSpans>(rows, row, span.thread < kUnknownThread ? static_cast<std::uint32_t>(span.thread) : ~0U);
    number(at(kSpans, "core"), span.core, span.core != kNoCore);
    number(at(kSpans, "process"), span.process, span.process >= 0);
    number(at(kSpans, "function_id"), span.id, span.id != kNoFunction);
    m_file.setName(rows, at(kSpans, "function"), row, TextSort::Function, span.id);
    m_file.setTicks(rows, at(kSpans, "start_tick"), at(kSpans, "start_ns"), row, span.from);
    m_file.setTicks(rows, at(kSpans, "end_tick"), at(kSpans, "end_ns"), row, span.to);
    m_file.setTicks(rows, at(kSpans, "duration_ticks"), at(kSpans, "duration_ns"), row, length);
    m_file.setTicks(rows, at(kSpans, "self_ticks"), at(kSpans, "self_ns"), row, self);
    rows[at(kSpans, "callee_ticks")].setNumber(
        row, static_cast<std::int64_t>(std::min<std::uint64_t>(span.callees, INT64_MAX)));
    rows[at(kSpans, "depth")].setNumber(row, span.depth);
    number(at(kSpans, "parent_id"), span.parent, span.parent != kNoParent);
    if (span.parent == kNoParent)
        rows[at(kSpans, "parent")].setNull(row);
    else
        m_file.setName(rows, at(kSpans, "parent"), row, TextSort::Function, static_cast<std::uint64_t>(span.parent));
    rows[at(kSpans, "has_enter")].setFlag(row, span.enter != kUnknown64);
    rows[at(kSpans, "has_leave")].setFlag(row, span.leave != kUnknown64);
    rows.setUnsigned(at(kSpans, "enter_offset"), row, span.enter);
    rows.setUnsigned(at(kSpans, "leave_offset"), row, span.leave);
}

void SpanTable::add(Batches& rows, const Span& span) const {
    if (!isWithin(span))
        return;
    TableBatch& batch = batchFor(rows, m_file.layout);
    set(batch, batch.add(), span);
}

void SpanTable::count(Thread& thread, std::uint64_t ticks) {
    if (!thread.stack.empty())
        thread.stack.back().callees += ticks;
    else
        thread.throughout += ticks;
}

SpanTable::Span SpanTable::end(Thread& thread, std::uint64_t key, std::uint64_t tick) {
    const OpenCall call = thread.stack.back();
    thread.stack.pop_back();
    Span span{key, call.core, call.process, call.id};
    span.from = call.from;
    span.to = tick;
    span.callees = call.callees;
    span.depth = thread.level + static_cast<std::int64_t>(thread.stack.size());
    span.parent = thread.stack.empty() ? kNoParent : std::int64_t{thread.stack.back().id};
    span.enter = call.offset;
    if (const std::uint64_t length = lengthOf(span); length != kUnknown64)
        count(thread, length);
    return span;
}

/// What of the rows of a piece is not where it is to be.
struct SpanTable::Edits {
    struct Insert {
        std::size_t row;
        Span span;
    };
    std::vector<Insert> inserts; ///< before rows
    std::vector<std::size_t> drops;
};

void SpanTable::take(Piece&& piece, Batches& rows) {
    Edits edits;
    for (auto& [key, its] : piece.m_threads)
        join(piece, key, its, edits);
    complete(piece);
    for (const auto& [core, process] : piece.m_processes)
        m_processes[core] = process;
    if (edits.inserts.empty() && edits.drops.empty())
        std::move(piece.m_rows.begin(), piece.m_rows.end(), std::back_inserter(rows));
    else
        rebuild(piece, edits, rows);
}

std::int64_t SpanTable::processOn(std::uint32_t core, std::int64_t process) const {
    const std::int64_t* const known = process == kProcessBefore ? m_processes.find(core) : nullptr;
    return known ? *known : std::max(process, kNoProcess);
}

void SpanTable::join(Piece& piece, std::uint64_t key, PieceThread& its, Edits& edits) {
    Thread& thread = m_threads[key];
    const auto place = [&](std::uint32_t segment) {
        piece.m_segments[segment] = {thread.level + static_cast<std::int64_t>(thread.stack.size()),
                                     thread.stack.empty() ? kNoParent : std::int64_t{thread.stack.back().id}};
    };
    const auto enter = [&](OpenCall& call) {
        call.process = processOn(call.core, call.process);
        thread.stack.push_back(call);
    };
    place(its.first);
    for (Event& event : its.word) {
        count(thread, event.callees);
        if (event.enter) {
            enter(*event.enter);
        } else {
            leave(piece, thread, key, event, edits);
            place(event.segment);
        }
    }
    count(thread, its.callees);
    for (OpenCall& call : its.open)
        enter(call);
    if (its.last != kUnknown64)
        thread.last = its.last;
}

void SpanTable::leave(Piece& piece, Thread& thread, std::uint64_t key, const Event& event, Edits& edits) {
    const auto ended = std::find_if(thread.stack.rbegin(), thread.stack.rend(),
                                    [&](const OpenCall& call) { return isLeftBy(call, event.id); });
    auto count = ended == thread.stack.rend() ? 0 : std::distance(thread.stack.rbegin(), ended) + 1;
    if (m_file.isRange && count != 1) {
        // What it ends is told by the ranges before.
        for (OpenCall& call : thread.stack) {
            call.depth = thread.level++;
            thread.fixed.push_back(call);
        }
        thread.stack.clear();
        --thread.level;
        count = 0;
    }
    Span span{key, event.core, processOn(event.core, event.process), event.id};
    span.to = event.tick;
    span.depth = thread.level + static_cast<std::int64_t>(thread.stack.size());
    if (m_file.isRange && count == 0)
        span.callees = std::exchange(thread.throughout, 0);
    for (; count > 0; --count) {
        span = end(thread, key, event.tick);
        if (count > 1)
            edits.inserts.push_back({event.row, span});
    }
    span.leave = event.offset;
    if (!isWithin(span))
        edits.drops.push_back(event.row);
    std::size_t row = event.row;
    TableBatch& batch = piece.batchOf(row);
    batch.forgetNulls(row);
    set(batch, row, span);
}

void SpanTable::complete(Piece& piece) const {
    for (std::size_t i = 0; i < piece.m_lacks.size(); ++i) {
        const Piece::Lack& lack = piece.m_lacks[i];
        if (lack.segment == Piece::kNoSegment)
            continue;
        const Piece::Segment& segment = piece.m_segments[lack.segment];
        std::size_t row = i;
        TableBatch& batch = piece.batchOf(row);
        ColumnValues& depth = batch[at(kSpans, "depth")];
        depth.setNumber(row, depth.number(row) + segment.depth);
        if (lack.isOutermost && segment.parent != kNoParent) {
            batch[at(kSpans, "parent_id")].forgetNull(row);
            batch[at(kSpans, "parent_id")].setNumber(row, segment.parent);
            batch[at(kSpans, "parent")].forgetNull(row);
            m_file.setName(batch, at(kSpans, "parent"), row, TextSort::Function,
                           static_cast<std::uint64_t>(segment.parent));
        }
        if (const std::int64_t process = lack.isOfProcess ? processOn(lack.core, kProcessBefore) : kNoProcess;
            process >= 0) {
            batch[at(kSpans, "process")].forgetNull(row);
            batch[at(kSpans, "process")].setNumber(row, process);
        }
    }
}

void SpanTable::rebuild(Piece& piece, Edits& edits, Batches& rows) const {
    std::ranges::stable_sort(edits.inserts, {}, &Edits::Insert::row);
    std::ranges::sort(edits.drops);
    Batches all;
    auto insert = edits.inserts.begin();
    auto drop = edits.drops.begin();
    for (std::size_t i = 0; i < piece.m_lacks.size(); ++i) {
        for (; insert != edits.inserts.end() && insert->row == i; ++insert)
            add(all, insert->span);
        if (drop != edits.drops.end() && *drop == i) {
            ++drop;
            continue;
        }
        std::size_t row = i;
        const TableBatch& batch = piece.batchOf(row);
        batchFor(all, m_file.layout).copyRow(batch, row);
    }
    std::move(all.begin(), all.end(), std::back_inserter(rows));
}

void SpanTable::finish(Batches& rows) {
    for (auto& [key, thread] : m_threads) {
        while (!m_file.isRange && !thread.stack.empty())
            add(rows, end(thread, key, thread.last));
        if (m_file.isRange && thread.throughout > 0) {
            Span span{key, kNoCore, kNoProcess, kNoFunction};
            span.callees = thread.throughout;
            span.depth = thread.level - 1;
            add(rows, span);
        }
        std::int64_t parent = kNoParent;
        const auto addOpen = [&, &its = key](const OpenCall& call) {
            Span span{its, call.core, call.process, call.id};
            span.from = call.from;
            span.callees = call.callees;
            span.depth = call.depth;
            span.parent = parent;
            span.enter = call.offset;
            add(rows, span);
        };
        for (const OpenCall& call : thread.fixed)
            addOpen(call);
        for (OpenCall& call : thread.stack) {
            call.depth = thread.level++;
            addOpen(call);
            parent = call.id;
        }
    }
}

SpanTable::PieceThread& SpanTable::Piece::threadOf(std::uint32_t number, std::uint32_t core) {
    const std::uint64_t key = number != ~0U ? number : kUnknownThread | core;
    if (!m_last || key != m_lastKey) {
        m_lastKey = key;
        m_last = &m_threads.findOrMake(key, [&] {
            PieceThread thread;
            thread.first = thread.segment = static_cast<std::uint32_t>(m_segments.size());
            m_segments.emplace_back();
            return thread;
        });
    }
    return *m_last;
}

std::int64_t SpanTable::Piece::processOn(std::uint32_t core) {
    const std::int64_t* const known = m_processes.find(core);
    return known ? *known : kProcessBefore;
}

TableBatch& SpanTable::Piece::batchOf(std::size_t& row) {
    const std::size_t rows = m_rows.front().rows(); // all have as many but for the last
    TableBatch& batch = m_rows[row / rows];
    row %= rows;
    return batch;
}

std::size_t SpanTable::Piece::add(const SpanTable& table, const Span& span, const Lack& lack) {
    TableBatch& batch = batchFor(m_rows, table.file().layout);
    table.set(batch, batch.add(), span);
    m_lacks.push_back(lack);
    return m_lacks.size() - 1;
}

void SpanTable::Piece::note(const SpanTable& table, const CTraceCursor& packet) {
    const tagTCode kind = absoluteKind(packet.TraceCode());
    if (kind != FunctionEnter && kind != FunctionLeave && kind != ProcessEnter && kind != ProcessLeave)
        return;
    const PacketPlace place = PacketPlace::onCore(packet);
    const std::uint32_t id = enteredIn(packet);
    const bool wantsProcess = table.file().layout.wants(at(kSpans, "process"));
    if (kind == ProcessEnter || kind == ProcessLeave) {
        if (wantsProcess)
            m_processes[place.core] = kind == ProcessEnter ? std::int64_t{id} : kNoProcess;
        return;
    }
    PieceThread& thread = threadOf(place.thread, place.core);
    if (place.tick != kUnknown64)
        thread.last = place.tick;
    const std::int64_t process = wantsProcess ? processOn(place.core) : kNoProcess;
    if (kind == FunctionEnter) {
        thread.open.push_back({id, place.core, place.tick, packet.offset(), 0, process});
        return;
    }
    Span span{m_lastKey, place.core, process, id};
    span.to = place.tick;
    span.leave = packet.offset();
    if (thread.open.empty() || !isLeftBy(thread.open.back(), id)) {
        std::uint64_t callees = std::exchange(thread.callees, 0);
        for (const OpenCall& call : thread.open)
            thread.word.push_back({std::exchange(callees, 0), call});
        thread.open.clear();
        thread.segment = static_cast<std::uint32_t>(m_segments.size());
        m_segments.emplace_back();
        const std::size_t row = add(table, span, {kNoSegment, 0, false, false});
        thread.word.push_back(
            {callees, std::nullopt, row, id, place.tick, packet.offset(), place.core, process, thread.segment});
        return;
    }
    const OpenCall call = thread.open.back();
    thread.open.pop_back();
    const bool isOutermost = thread.open.empty();
    span.core = call.core;
    span.process = call.process;
    span.id = call.id;
    span.from = call.from;
    span.callees = call.callees;
    span.depth = static_cast<std::int64_t>(thread.open.size());
    span.parent = isOutermost ? kNoParent : std::int64_t{thread.open.back().id};
    span.enter = call.offset;
    if (const std::uint64_t length = lengthOf(span); length != kUnknown64)
        (isOutermost ? thread.callees : thread.open.back().callees) += length;
    if (table.isWithin(span))
        add(table, span, {thread.segment, call.core, isOutermost, call.process == kProcessBefore});
}

} // namespace Quorvex::detail
