#include "quorvex/analysis/TraceTables.h"

#include "quorvex/analysis/LossTable.h"
#include "quorvex/analysis/RowTable.h"
#include "quorvex/analysis/SpanTable.h"
#include "quorvex/analysis/TableBatch.h"
#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TableFile.h"
#include "quorvex/analysis/ThreadTable.h"
#include "quorvex/analysis/TraceDefinitions.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/Attempt.h"
#include "quorvex/stream/PageFormat.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <istream>
#include <iterator>
#include <mutex>
#include <new>
#include <stdexcept>
#include <streambuf>
#include <thread>
#include <utility>

namespace Quorvex {

namespace {

using columns::at;
using detail::Batches;
using detail::LossTable;
using detail::RowTable;
using detail::TableBatch;
using detail::TableFile;
using detail::TableLayout;
using detail::ThreadTable;
using detail::TraceDefinitions;

/// A part of a trace in memory, as a stream.
class PartStream : private std::streambuf, public std::istream {
public:
    explicit PartStream(std::shared_ptr<const std::string> bytes)
        : std::istream(static_cast<std::streambuf*>(this)), m_bytes(std::move(bytes)) {
        char* const begin = const_cast<char*>(m_bytes->data()); // which is read only
        setg(begin, begin, begin + m_bytes->size());
    }

private:
    std::shared_ptr<const std::string> m_bytes;
};

/// A trace that is open, from where it is to be read.
struct OpenInput {
    explicit OpenInput(const TableInput& input) {
        if (input.bytes) {
            stream = std::make_unique<PartStream>(input.bytes);
            trace = std::make_unique<TraceFile>(input.path, stream.get());
            trace->startAt(input.position);
        } else {
            trace = std::make_unique<TraceFile>(input.path);
        }
    }

    std::unique_ptr<PartStream> stream;
    std::unique_ptr<TraceFile> trace;
};

/// What threads make of the pieces of a trace that they walk through, in their order.
template <class Piece> struct Pieces {
    std::vector<Piece> all = std::vector<Piece>(1);
    void join(Pieces&& next) { std::move(next.all.begin(), next.all.end(), std::back_inserter(all)); }
};

/// A table that is not walked for.
class FunctionTable {
public:
    static void make(const TableFile& file, const std::string& definitions, Batches& rows) {
        using columns::kFunctions;
        Directory<std::uint32_t, bool> known;
        CTraceCursor cursor(definitions);
        while (cursor.next()) {
            if (cursor.TraceCode() != FunctionDefine || std::exchange(known[subjectIn(cursor)], true))
                continue;
            const std::uint32_t id = subjectIn(cursor);
            if (!file.nameOf(TextSort::Function, id))
                continue;
            TableBatch& batch = detail::batchFor(rows, file.layout);
            const std::size_t row = batch.add();
            batch[at(kFunctions, "file")].setNumber(row, file.number);
            batch.setUnsigned(at(kFunctions, "function_id"), row, id);
            file.setName(batch, at(kFunctions, "function"), row, TextSort::Function, id);
        }
    }

private:
    static std::uint32_t subjectIn(const CTraceCursor& packet) {
        return detail::fourBytes(packet.payload() + CCoreContext::Len());
    }
};

/// Which columns have names of what; none: texts of their own.
struct NameColumn {
    std::string_view column;
    TextSort sort;
};
constexpr NameColumn kNameColumns[] = {
    {"function", TextSort::Function},     {"parent", TextSort::Function},
    {"counter", TextSort::Counter},       {"variable", TextSort::Variable},
    {"event", TextSort::Event},           {"machine", TextSort::StateMachine},
    {"state", TextSort::State},           {"instance", TextSort::StateMachineInstance},
    {"transition", TextSort::Transition},
};

/// What is known of files, for all streams that read them.
struct Knowledge {
    std::vector<TableInput> files;
    std::vector<std::string> definitions; ///< of each file, once they are known
    CTraceNames names;
    bool isNamed = false;
    std::mutex mutex; ///< of the last three

    std::string definitionsOf(std::size_t file, unsigned threads, ReadWatch* watch) const {
        const OpenInput input(files[file]);
        if (watch)
            input.trace->watchBy(*watch);
        TraceDefinitions all;
        TraceShares shares;
        shares.threads = threads;
        input.trace->walkInParts(
            all, [](TraceDefinitions& its, const CTraceCursor& packet) { its.note(packet); }, shares);
        return all.bytes();
    }
    /// Learns what all files define; with the lock.
    void learn(unsigned threads, ReadWatch* watch) {
        if (isNamed)
            return;
        if (definitions.empty()) {
            std::vector<std::string> all;
            for (std::size_t file = 0; file < files.size(); ++file)
                all.push_back(definitionsOf(file, threads, watch));
            definitions = std::move(all);
        }
        for (std::size_t file = 0; file < files.size(); ++file) {
            CTraceCursor cursor(definitions[file]);
            while (cursor.next())
                names.note(*PacketPointer(cursor.packet()), static_cast<unsigned>(file));
        }
        isNamed = true;
    }
    /// Ticks in a second of a file's first clock; with the lock.
    std::uint64_t frequencyOf(std::size_t file) const {
        if (definitions.empty())
            return TraceSpan::beginningOf(*OpenInput(files[file]).trace, TraceSpan::kClockWithin).frequency;
        TimeBase clock;
        CTraceCursor cursor(definitions[file]);
        while (clock.frequency() == 0 && cursor.next()) {
            if (cursor.TraceCode() == Timestamp)
                clock.note(*PacketPointer(cursor.packet()));
        }
        return clock.frequency();
    }
};

/// A table while it is read.
class TableStream {
public:
    TableStream(std::shared_ptr<Knowledge> knowledge, TraceTable table, const TableOptions& options)
        : m_knowledge(std::move(knowledge)),
          m_table(table),
          m_options(options),
          m_layout(table, options.columns, options.rows),
          m_takes(256, options.kinds.empty()) {
        const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
        m_shares.threads = std::min(options.threads > 0 ? options.threads : processors, kMostThreads);
        m_shares.least = kPageSize * std::clamp<std::uint64_t>(options.portion, 1, kMostPages);
        for (const std::string& kind : options.kinds)
            m_takes[codeOf(kind)] = true;
        m_options.columns.clear();
    }

    void giveTo(ArrowArrayStream& out) {
        out = {};
        out.get_schema = [](ArrowArrayStream* its, ArrowSchema* schema) {
            return of(its).attempt([&] { of(its).m_layout.giveSchema(*schema); });
        };
        out.get_next = [](ArrowArrayStream* its, ArrowArray* array) {
            return of(its).attempt([&] { of(its).next(*array); });
        };
        out.get_last_error = [](ArrowArrayStream* its) -> const char* {
            return of(its).m_error.empty() ? nullptr : of(its).m_error.c_str();
        };
        out.release = [](ArrowArrayStream* its) {
            delete &of(its);
            its->release = nullptr;
        };
        out.private_data = this;
    }

private:
    static constexpr unsigned kMostThreads = 16; ///< of each there are rows in memory
    static constexpr std::uint64_t kMostPages = 1U << 20;

    /// What is made of a file, whichever table it is.
    class Walk {
    public:
        virtual ~Walk() = default;
        virtual void walk(TraceFile& trace, const TraceShares& shares, Batches& rows) = 0;
        virtual void finish(const TraceFile& trace, Batches& rows) = 0;
    };
    template <class Table> class WalkOf final : public Walk {
    public:
        template <class... Values> explicit WalkOf(const Values&... values) : m_its(values...) {}
        void walk(TraceFile& trace, const TraceShares& shares, Batches& rows) override {
            using Piece = typename Table::Piece;
            Pieces<Piece> pieces;
            const Table& its = m_its;
            trace.walkInParts(
                pieces, [&its](Pieces<Piece>& part, const CTraceCursor& packet) { part.all.back().note(its, packet); },
                shares);
            for (Piece& piece : pieces.all)
                m_its.take(std::move(piece), rows);
        }
        void finish(const TraceFile& trace, Batches& rows) override {
            if constexpr (requires { m_its.finish(rows); })
                m_its.finish(rows);
            else
                m_its.finish(trace, rows);
        }

    private:
        Table m_its;
    };

    static TableStream& of(ArrowArrayStream* stream) { return *static_cast<TableStream*>(stream->private_data); }

    /// What a step comes to, as a number of errno. Once one has failed all do.
    template <class Step> int attempt(const Step& step) {
        if (m_failure != 0)
            return m_failure;
        try {
            step();
            return 0;
        } catch (const std::bad_alloc&) {
            m_failure = ENOMEM;
        } catch (const std::exception& exception) {
            const auto keep = [&] {
                m_error = exception.what();
                return true;
            };
            m_failure = Quorvex::attempt(keep) ? EIO : ENOMEM;
        }
        return m_failure;
    }

    void next(ArrowArray& out) {
        out = {};
        if (!m_isPrepared)
            prepare();
        while (m_ready.empty() && !m_isOver)
            read();
        if (m_ready.empty())
            return;
        m_ready.front().give(out);
        m_ready.pop_front();
    }

    static tagTCode codeOf(const std::string& kind) {
        for (unsigned code = 0; code < kKindFacts.size(); ++code) {
            if (CTCodeInfo::TCodeIsValid(tagTCode(code)) && CTCodeInfo::TCodeToName(tagTCode(code)) == kind)
                return absoluteKind(tagTCode(code));
        }
        throw std::invalid_argument("there is no kind of packet '" + kind + "'");
    }
    bool wants(std::string_view name) const {
        return std::ranges::any_of(m_layout.chosen, [&](unsigned i) { return m_layout.columns[i].name == name; });
    }
    /// Whose names a column holds; None for texts of its own, and for those of all sorts.
    static TextSort sortIn(std::string_view column) {
        const auto* const its = std::ranges::find(kNameColumns, column, &NameColumn::column);
        return its == std::end(kNameColumns) ? TextSort::None : its->sort;
    }

    /// Makes the dictionaries.
    void prepare() {
        std::shared_ptr<detail::NameDictionary> bySort[kSorts];
        for (const unsigned column : m_layout.chosen) {
            const TableColumn& its = m_layout.columns[column];
            if (!its.isName)
                continue;
            const TextSort sort = sortIn(its.name);
            std::shared_ptr<detail::NameDictionary>& names = bySort[static_cast<std::size_t>(sort)];
            if (!names || sort == TextSort::None)
                names = std::make_shared<detail::NameDictionary>();
            m_layout.names[column] = names;
            const std::string_view name = its.name;
            if (name == "kind") {
                for (unsigned code = 0; code < m_kinds.size(); ++code) {
                    if (factsOf(tagTCode(code)).hasClass && factsOf(tagTCode(code)).role != Role::Structure)
                        m_kinds[code] = names->add(CTCodeInfo::TCodeToName(absoluteKind(tagTCode(code))));
                }
            } else if (name == "thread_name") {
                m_threadNames = names;
                m_wantsNames = true;
            } else if (name == "reason") {
                for (const char* reason : LossTable::kReasons)
                    names->add(reason);
            } else {
                m_wantsNames = true;
                for (std::size_t i = 0; name == "name" && i < kSorts; ++i)
                    bySort[i] = names;
            }
        }
        // Columns that are told by what is defined.
        m_wantsNames |= m_table == TraceTable::Functions || wants("state_id") ||
                        (m_table == TraceTable::Counters && (wants("value") || wants("integer")));
        const std::lock_guard lock(m_knowledge->mutex);
        if (m_wantsNames) {
            m_knowledge->learn(m_shares.threads, m_options.watch);
            for (const auto& [key, name] : m_knowledge->names.all()) {
                const auto sort = static_cast<std::size_t>(key.first);
                if (m_table == TraceTable::Functions && !bySort[sort])
                    m_indices.push_back({key, 0});
                else if (bySort[sort])
                    m_indices.push_back({key, bySort[sort]->add(name.text)});
            }
            for (unsigned file = 0; file < m_knowledge->files.size(); ++file)
                noteThreads(m_threads, file);
            noteThreads(m_threads, CTraceNames::kAnyProcess);
        }
        m_isPrepared = true;
    }
    /// Takes note of what a file, or any, calls threads; with the lock.
    void noteThreads(TableFile::Indices& threads, unsigned file) {
        const CTraceNames& names = m_knowledge->names;
        for (const std::uint32_t thread : m_threadNames ? names.threads(file) : std::vector<std::uint32_t>()) {
            if (const std::string& name = names.threadName(thread, file); !name.empty())
                threads[thread] = m_threadNames->add(name);
        }
    }
    /// Makes known of a file what its rows tell.
    void describe(TableFile& file, std::size_t number) {
        const bool wantsTime = std::ranges::any_of(
            m_layout.chosen, [&](unsigned i) { return std::string_view(m_layout.columns[i].unit) == "ns"; });
        const std::lock_guard lock(m_knowledge->mutex);
        if (wantsTime)
            file.frequency = m_knowledge->frequencyOf(number);
        CTraceNames& names = m_knowledge->names;
        for (const auto& [key, index] : m_indices) {
            const auto [sort, its] = key;
            const std::uint64_t id = names.idOf(sort, its);
            if (names.numberOf(sort, id, static_cast<unsigned>(number)) == its)
                file.names[static_cast<std::size_t>(sort)][id] = index;
        }
        if (!m_wantsNames)
            return;
        noteThreads(file.threads, static_cast<unsigned>(number));
        file.othersThreads = &m_threads;
        CTraceCursor cursor(m_knowledge->definitions[number]);
        while (cursor.next()) {
            if (const auto value = TraceDefinitions::counterValue(cursor))
                file.counters[value->first].note(value->second);
            else if (const auto transition = cursor.as<CTransitionDefine>())
                file.targets[CTraceNames::pair(transition->StateMachine(), transition->Transition())] =
                    transition->TargetState();
        }
    }

    /// Goes on with the files until there are rows, or there is no more to be read.
    void read() {
        Batches rows;
        if (!m_walk && !begin(rows)) {
            m_isOver = true;
            return;
        }
        if (m_walk) {
            TraceFile& trace = *m_input->trace;
            TraceShares shares = m_shares;
            shares.until = std::min(m_until, trace.end() + m_shares.threads * m_shares.least);
            m_walk->walk(trace, shares, rows);
            if (trace.report().end != TraceEnd::Unread || trace.end() >= m_until) {
                m_walk->finish(trace, rows);
                m_walk.reset();
                m_input.reset();
            }
        }
        for (TableBatch& batch : rows) {
            if (batch.rows() > 0)
                m_ready.push_back(std::move(batch));
        }
    }

    /// Begins the next file; false where there is none.
    bool begin(Batches& rows) {
        if (m_nextFile == m_knowledge->files.size())
            return false;
        const std::size_t number = m_nextFile++;
        const TableInput& input = m_knowledge->files[number];
        m_file = std::make_unique<TableFile>(m_layout);
        m_file->number = static_cast<std::int64_t>(number);
        m_file->window = m_options.window;
        describe(*m_file, number);
        if (m_table == TraceTable::Functions) {
            FunctionTable::make(*m_file, m_knowledge->definitions[number], rows);
            return true;
        }
        std::uint64_t from = 0;
        if (!rangeOf(input, from))
            return true; // nothing of this one
        m_input = std::make_unique<OpenInput>(input);
        if (from > 0)
            m_input->trace->startAt(from);
        if (m_options.watch)
            m_input->trace->watchBy(*m_options.watch);
        switch (m_table) {
        case TraceTable::Spans:
            m_walk = std::make_unique<WalkOf<detail::SpanTable>>(*m_file);
            break;
        case TraceTable::Threads:
            m_walk = std::make_unique<WalkOf<ThreadTable>>(*m_file);
            break;
        case TraceTable::Losses:
            m_walk = std::make_unique<WalkOf<LossTable>>(*m_file, m_input->trace->end());
            break;
        default:
            m_walk = std::make_unique<WalkOf<RowTable>>(m_table, *m_file, m_kinds, m_takes);
        }
        return true;
    }

    /// Where the wanted pages of a file begin and end; false where it has none of them. A file without pages is one.
    bool rangeOf(const TableInput& input, std::uint64_t& from) {
        m_until = UINT64_MAX;
        m_file->isRange = input.bytes != nullptr;
        const TickWindow& window = m_options.window;
        const bool isByTime = (window.from > 0 || window.to != UINT64_MAX) && m_table != TraceTable::Spans &&
                              m_table != TraceTable::Losses;
        if (input.bytes || (m_options.firstPage == 0 && m_options.pages == UINT64_MAX && !isByTime))
            return true;
        TracePages pages(input.path);
        if (m_options.watch)
            pages.watchBy(*m_options.watch);
        if (!pages.arePages() || pages.isRecording())
            return m_options.firstPage == 0 && m_options.pages > 0;
        const std::uint64_t count = pages.count();
        std::uint64_t first = std::min(m_options.firstPage, count);
        std::uint64_t last = first + std::min(m_options.pages, count - first);
        if (isByTime && pages.areInOrder()) {
            // The pages beside those that tell of the time may have what is told a little early or late.
            const std::uint64_t begin = pages::numberAt(pages.placeOf(window.from));
            first = std::max(first, begin - std::min<std::uint64_t>(begin, 1));
            if (window.to != UINT64_MAX)
                last = std::min(last, pages::numberAt(pages.placeOf(window.to)) + 2);
        }
        if (first >= last)
            return false;
        from = pages::beginOf(first);
        if (last < count)
            m_until = pages::beginOf(last);
        m_file->isRange = from > 0 || m_until != UINT64_MAX;
        return true;
    }

    static constexpr std::size_t kSorts = static_cast<std::size_t>(TextSort::Transition) + 1;

    std::shared_ptr<Knowledge> m_knowledge;
    TraceTable m_table;
    TableOptions m_options;
    TableLayout m_layout;
    std::vector<bool> m_takes; ///< by the code of an absolute kind
    std::vector<std::int32_t> m_kinds = std::vector<std::int32_t>(256);
    /// Where the dictionaries have the names that are wanted.
    std::vector<std::pair<CTraceNames::Key, std::int32_t>> m_indices;
    std::shared_ptr<detail::NameDictionary> m_threadNames;
    TableFile::Indices m_threads; ///< by the names that any file gives them
    bool m_wantsNames = false;    ///< or what else is told by definitions
    bool m_isPrepared = false;
    TraceShares m_shares;
    std::size_t m_nextFile = 0;
    std::unique_ptr<TableFile> m_file;
    std::unique_ptr<OpenInput> m_input;
    std::uint64_t m_until = UINT64_MAX;
    std::unique_ptr<Walk> m_walk;
    std::deque<TableBatch> m_ready;
    int m_failure = 0;
    std::string m_error; ///< of the failure
    bool m_isOver = false;
};

} // namespace

struct TraceTables::Shared : Knowledge {};

TraceTables::TraceTables(std::vector<TableInput> files, std::vector<std::string> definitions)
    : m_shared(std::make_shared<Shared>()) {
    if (!definitions.empty() && definitions.size() != files.size())
        throw std::invalid_argument("there must be definitions of each file");
    m_shared->files = std::move(files);
    m_shared->definitions = std::move(definitions);
}

TraceTables::TraceTables(TraceTables&&) noexcept = default;

TraceTables& TraceTables::operator=(TraceTables&&) noexcept = default;

TraceTables::~TraceTables() = default;

void TraceTables::open(TraceTable table, const TableOptions& options, ArrowArrayStream& out) const {
    std::make_unique<TableStream>(m_shared, table, options).release()->giveTo(out);
}

std::string TraceTables::definitions(std::size_t file, unsigned threads) const {
    const std::lock_guard lock(m_shared->mutex);
    return m_shared->definitions.empty() ? m_shared->definitionsOf(file, threads, nullptr)
                                         : m_shared->definitions.at(file);
}

} // namespace Quorvex
