#include "quorvex/analysis/TraceTables.h"

#include "quorvex/analysis/SpanTable.h"
#include "quorvex/analysis/TableBatch.h"
#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TableFile.h"
#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/Attempt.h"
#include "quorvex/stream/PageFormat.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
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
using detail::TableBatch;
using detail::TableFile;
using detail::TableLayout;
using Batches = std::vector<TableBatch>;

std::uint64_t eightBytes(const char* from) {
    return loadLittleEndian<std::uint64_t>(from);
}
std::uint32_t fourBytes(const char* from) {
    return loadLittleEndian<std::uint32_t>(from);
}

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

// What a file defines.

/// The definitions of a piece of a trace, as the bytes of a trace.
class Definitions {
public:
    void note(const CTraceCursor& packet) {
        const KindFacts& facts = factsOf(packet.TraceCode());
        if (facts.role == Role::Definition || (packet.TraceCode() == Timestamp && !m_hasClock))
            add(packet);
        else if (facts.isCounterValue)
            count(packet);
    }
    void join(Definitions&& next) {
        m_bytes += next.m_bytes;
        m_hasClock |= next.m_hasClock;
    }
    const std::string& bytes() const { return m_bytes; }

private:
    void add(const CTraceCursor& packet) {
        const PacketPointer read(packet.packet());
        const auto* const timestamp = packetAs<CTimestamp>(*read);
        if (timestamp && (!timestamp->is_Frequency_valid() || timestamp->Frequency() == 0))
            return;
        m_hasClock |= timestamp != nullptr;
        const PacketPointer made(packet.contexts().absolute(*read));
        CPacket& own = made ? *made : *read;
        const std::size_t before = m_bytes.size();
        m_bytes.resize(before + own.StreamSize());
        own.write(m_bytes.data() + before, own.StreamSize());
    }
    /// Keeps the values that tell something of their counter's type.
    void count(const CTraceCursor& packet) {
        const auto value = counterValue(packet);
        if (!value)
            return;
        CounterSort& sort = m_counters[value->first];
        if (!sort.isNews(value->second))
            return;
        sort.note(value->second);
        add(packet);
    }

public:
    /// The number of a counter and the bits of its value; none where these are not 64 bits of whatever type.
    static std::optional<std::pair<std::uint32_t, std::uint64_t>> counterValue(const CTraceCursor& packet) {
        const KindFacts& facts = factsOf(packet.TraceCode());
        const tagTCode kind = absoluteKind(packet.TraceCode());
        if (!facts.isCounterValue || kind == CounterValueVar)
            return std::nullopt;
        const char* const id = packet.payload() + (facts.isRelative ? CRelCoreContext::Len() : CCoreContext::Len());
        return std::pair(fourBytes(id), eightBytes(id + 4));
    }

private:
    std::string m_bytes;
    Directory<std::uint32_t, CounterSort> m_counters;
    bool m_hasClock = false;
};

// Rows of single packets.

/// Where packets of a kind tell what they are about.
struct SubjectPlace {
    TextSort sort = TextSort::None;
    std::uint8_t at = 0;      ///< in the payload
    std::uint8_t machine = 0; ///< likewise: of a part of a state machine, that of the machine
    bool isThere = false;
    bool isLast = false; ///< it is the last field, wherever that begins
};

SubjectPlace placeIn(tagTCode code) {
    SubjectPlace place;
    const KindFacts& facts = factsOf(code);
    std::string_view layout = CTCodeInfo::TCodeToFormat(code);
    unsigned at = 0;
    bool isFixed = true; // all fields so far are
    while (isFixed && !layout.empty()) {
        const std::string_view field = layout.substr(0, layout.find('|'));
        layout.remove_prefix(std::min(layout.size(), field.size() + 1));
        const std::string_view name = field.substr(0, field.find(':'));
        const Reference* const reference = referenceOf(name);
        const bool isId = reference ? reference->isSubject : name == "ExcId";
        const bool mayFollow = place.sort == TextSort::StateMachine || isPartOfMachine(place.sort);
        if (isId && (!place.isThere || mayFollow)) {
            place.sort = reference ? reference->sort : TextSort::None;
            if (place.sort == TextSort::StateMachine)
                place.machine = static_cast<std::uint8_t>(at);
            place.at = static_cast<std::uint8_t>(at);
            place.isThere = true;
        }
        unsigned size = 0;
        const char* const end = field.data() + field.size();
        isFixed = std::from_chars(field.data() + name.size() + 1, end, size).ptr == end;
        at += size;
    }
    place.isLast = facts.step != Step::None;
    if (place.isThere && facts.role == Role::Definition)
        place.sort = facts.text;
    return place;
}

/// By type code.
const std::array<SubjectPlace, 256>& subjectPlaces() {
    static const std::array<SubjectPlace, 256> places = [] {
        std::array<SubjectPlace, 256> all;
        for (unsigned code = 0; code < all.size(); ++code) {
            if (factsOf(tagTCode(code)).hasClass)
                all[code] = placeIn(tagTCode(code));
        }
        return all;
    }();
    return places;
}

/// Where a packet happened, as far as it tells.
struct RowPlace {
    std::uint64_t tick = kUnknown64;
    std::uint32_t core = ~0U;
    std::uint32_t thread = ~0U;
    std::uint64_t address = kUnknown64;
};

RowPlace placeOf(const CTraceCursor& packet) {
    RowPlace place;
    const KindFacts& facts = factsOf(packet.TraceCode());
    if (facts.context == ContextSort::Core) {
        const auto context = *packet.contextOf<CCoreContext>();
        return {checkedTick(context.tick), context.hwCtx, context.swCtx, context.ip};
    }
    place.tick = packet.tick();
    if (facts.context == ContextSort::Bus)
        place.core = packet.contextOf<CBusContext>()->hwCtx;
    else if (packet.TraceCode() == InitialState || packet.TraceCode() == Transition)
        place.core = fourBytes(packet.payload() + 12);
    return place;
}

/// Makes a row of each packet of some kinds.
class RowTable {
public:
    class Piece {
    public:
        void note(const RowTable& table, const CTraceCursor& packet) {
            const RowTable::Make make = table.m_makes[packet.TraceCode()];
            if (make)
                (table.*make)(m_rows, packet);
        }

    private:
        friend class RowTable;
        Batches m_rows;
    };

    /// Of the kinds that are taken, by their codes.
    RowTable(TraceTable table, const TableFile& file, const std::vector<std::int32_t>& kinds,
             const std::vector<bool>& takes);
    void take(Piece&& piece, Batches& rows) {
        std::move(piece.m_rows.begin(), piece.m_rows.end(), std::back_inserter(rows));
    }
    void finish(const TraceFile&, Batches&) {}

private:
    using Make = void (RowTable::*)(Batches& rows, const CTraceCursor& packet) const;

    /// A row for a packet, with what all of these tables begin with; none where it is not within the window.
    template <const auto& Columns>
    TableBatch* begin(Batches& rows, std::size_t& row, const CTraceCursor& packet, const RowPlace& place) const {
        const bool isAll = m_file.window.from == 0 && m_file.window.to == UINT64_MAX;
        if (!isAll && (place.tick == kUnknown64 || !m_file.isWithin(place.tick)))
            return nullptr;
        if (rows.empty() || rows.back().isFull())
            rows.emplace_back(m_file.layout);
        TableBatch& batch = rows.back();
        row = batch.add();
        batch[at(Columns, "file")].setNumber(row, m_file.number);
        batch.setUnsigned(at(Columns, "file_offset"), row, packet.offset());
        m_file.setTicks(batch, at(Columns, "tick"), at(Columns, "time_ns"), row, place.tick);
        return &batch;
    }
    static void setKnown(TableBatch& rows, unsigned column, std::size_t row, std::uint32_t number) {
        rows.setUnsigned(column, row, number == ~0U ? kUnknown64 : number);
    }
    static void setAddress(TableBatch& rows, unsigned column, std::size_t row, std::uint64_t address) {
        if (address == kUnknown64)
            rows[column].setNull(row);
        else
            rows[column].setNumber(row, static_cast<std::int64_t>(address));
    }
    template <const auto& Columns> void setData(TableBatch& rows, std::size_t row, std::string_view data) const {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < std::min(data.size(), sizeof value); ++i)
            value |= std::uint64_t{static_cast<unsigned char>(data[i])} << 8 * i;
        if (data.empty())
            rows[at(Columns, "value")].setNull(row);
        else
            rows[at(Columns, "value")].setNumber(row, static_cast<std::int64_t>(value));
        rows.setText(at(Columns, "data"), row, data);
    }
    /// What stands behind so many bytes of the payload behind a core context.
    static std::string_view behind(const CTraceCursor& packet, unsigned bytes) {
        const unsigned context = factsOf(packet.TraceCode()).isRelative ? CRelCoreContext::Len() : CCoreContext::Len();
        return {packet.payload() + context + bytes, packet.Length() - context - bytes};
    }

    void makePacket(Batches& rows, const CTraceCursor& packet) const;
    void makeCounter(Batches& rows, const CTraceCursor& packet) const;
    void makeVariable(Batches& rows, const CTraceCursor& packet) const;
    void makeEvent(Batches& rows, const CTraceCursor& packet) const;
    void makeMessage(Batches& rows, const CTraceCursor& packet) const;
    void makeState(Batches& rows, const CTraceCursor& packet) const;

    const TableFile& m_file;
    const std::vector<std::int32_t>& m_kinds; ///< indices of their names, by code
    std::array<Make, 256> m_makes{};
};

RowTable::RowTable(TraceTable table, const TableFile& file, const std::vector<std::int32_t>& kinds,
                   const std::vector<bool>& taken)
    : m_file(file), m_kinds(kinds) {
    for (unsigned code = 0; code < m_makes.size(); ++code) {
        const KindFacts& facts = factsOf(tagTCode(code));
        const tagTCode kind = absoluteKind(tagTCode(code));
        if (!facts.hasClass || !taken[kind])
            continue;
        const auto makes = [&](TraceTable its, bool takes, Make make) {
            if (table == its && takes)
                m_makes[code] = make;
        };
        makes(TraceTable::Packets, facts.role != Role::Structure, &RowTable::makePacket);
        makes(TraceTable::Counters, facts.isCounterValue, &RowTable::makeCounter);
        makes(TraceTable::Variables, kind == VariableRead || kind == VariableWrite, &RowTable::makeVariable);
        makes(TraceTable::Events, kind == Event, &RowTable::makeEvent);
        makes(TraceTable::Messages, kind == Message, &RowTable::makeMessage);
        makes(TraceTable::States, kind == InitialState || kind == Transition, &RowTable::makeState);
    }
}

void RowTable::makePacket(Batches& rows, const CTraceCursor& packet) const {
    using columns::kPackets;
    const tagTCode code = packet.TraceCode();
    const RowPlace place = placeOf(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kPackets>(rows, row, packet, place);
    if (!batch)
        return;
    (*batch)[at(kPackets, "kind")].setNumber(row, m_kinds[code]);
    setKnown(*batch, at(kPackets, "core"), row, place.core);
    setKnown(*batch, at(kPackets, "thread"), row, place.thread);
    setAddress(*batch, at(kPackets, "address"), row, place.address);
    const TableLayout& layout = m_file.layout;
    if (layout.wants(at(kPackets, "id")) || layout.wants(at(kPackets, "name"))) {
        const SubjectPlace& subject = subjectPlaces()[code];
        const std::uint32_t id = !subject.isThere ? 0
                                 : subject.isLast ? enteredIn(packet)
                                                  : fourBytes(packet.payload() + subject.at);
        const bool isThere =
            subject.isThere && !(subject.sort == TextSort::Function && id == CFunctionEnterPayload::kNoFunction);
        batch->setUnsigned(at(kPackets, "id"), row, isThere ? id : kUnknown64);
        const std::uint64_t key =
            isPartOfMachine(subject.sort) ? CTraceNames::pair(fourBytes(packet.payload() + subject.machine), id) : id;
        if (isThere)
            m_file.setName(*batch, at(kPackets, "name"), row, subject.sort, key);
        else
            (*batch)[at(kPackets, "name")].setNull(row);
    }
    const std::string_view text = layout.wants(at(kPackets, "text")) ? packet.text() : std::string_view();
    if (text.empty())
        (*batch)[at(kPackets, "text")].setNull(row);
    else
        batch->setText(at(kPackets, "text"), row, text);
}

void RowTable::makeCounter(Batches& rows, const CTraceCursor& packet) const {
    using columns::kCounters;
    const RowPlace place = placeOf(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kCounters>(rows, row, packet, place);
    if (!batch)
        return;
    setKnown(*batch, at(kCounters, "core"), row, place.core);
    setKnown(*batch, at(kCounters, "thread"), row, place.thread);
    const std::string_view payload = behind(packet, 0);
    const std::uint32_t id = fourBytes(payload.data());
    batch->setUnsigned(at(kCounters, "counter_id"), row, id);
    m_file.setName(*batch, at(kCounters, "counter"), row, TextSort::Counter, id);
    std::string_view rest = payload.substr(4);
    const bool isVar = absoluteKind(packet.TraceCode()) == CounterValueVar;
    const std::size_t width = isVar ? rest.size() / 2 : sizeof(std::uint64_t);
    const auto take = [&rest](std::size_t size) -> std::optional<std::uint64_t> {
        if (size == 0 || rest.size() < size)
            return std::nullopt;
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < std::min(size, sizeof value); ++i)
            value |= std::uint64_t{static_cast<unsigned char>(rest[i])} << 8 * i;
        rest.remove_prefix(size);
        return size <= sizeof value ? std::optional(value) : std::nullopt;
    };
    const auto asBits = [](std::optional<std::uint64_t> value) {
        return value ? std::optional(static_cast<std::int64_t>(*value)) : std::nullopt;
    };
    const std::optional<std::uint64_t> bits = take(width);
    const CounterSort* const sort = isVar ? nullptr : m_file.counters.find(id);
    const CounterType type = sort ? sort->type() : CounterType::Unsigned;
    const bool isWhole = type != CounterType::Double;
    const double value = !bits                         ? 0
                         : type == CounterType::Double ? std::bit_cast<double>(*bits)
                         : type == CounterType::Signed ? static_cast<double>(static_cast<std::int64_t>(*bits))
                                                       : static_cast<double>(*bits);
    if (bits)
        (*batch)[at(kCounters, "value")].setReal(row, value);
    else
        (*batch)[at(kCounters, "value")].setNull(row);
    const bool fits = bits && (type == CounterType::Signed || *bits <= static_cast<std::uint64_t>(INT64_MAX));
    batch->set(at(kCounters, "integer"), row, isWhole && fits ? asBits(bits) : std::nullopt);
    batch->set(at(kCounters, "bits"), row, asBits(bits));
    batch->set(at(kCounters, "index1"), row, asBits(take(width)));
    batch->set(at(kCounters, "index2"), row, asBits(take(width)));
}

void RowTable::makeVariable(Batches& rows, const CTraceCursor& packet) const {
    using columns::kVariables;
    const RowPlace place = placeOf(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kVariables>(rows, row, packet, place);
    if (!batch)
        return;
    setKnown(*batch, at(kVariables, "core"), row, place.core);
    setKnown(*batch, at(kVariables, "thread"), row, place.thread);
    setAddress(*batch, at(kVariables, "address"), row, place.address);
    const std::uint32_t id = fourBytes(behind(packet, 0).data());
    batch->setUnsigned(at(kVariables, "variable_id"), row, id);
    m_file.setName(*batch, at(kVariables, "variable"), row, TextSort::Variable, id);
    (*batch)[at(kVariables, "is_write")].setFlag(row, absoluteKind(packet.TraceCode()) == VariableWrite);
    setData<kVariables>(*batch, row, behind(packet, 4));
}

void RowTable::makeEvent(Batches& rows, const CTraceCursor& packet) const {
    using columns::kEvents;
    const RowPlace place = placeOf(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kEvents>(rows, row, packet, place);
    if (!batch)
        return;
    setKnown(*batch, at(kEvents, "core"), row, place.core);
    setKnown(*batch, at(kEvents, "thread"), row, place.thread);
    setAddress(*batch, at(kEvents, "address"), row, place.address);
    const std::uint32_t id = fourBytes(behind(packet, 0).data());
    batch->setUnsigned(at(kEvents, "event_id"), row, id);
    m_file.setName(*batch, at(kEvents, "event"), row, TextSort::Event, id);
    setData<kEvents>(*batch, row, behind(packet, 4));
}

void RowTable::makeMessage(Batches& rows, const CTraceCursor& packet) const {
    using columns::kMessages;
    std::size_t row = 0;
    TableBatch* const batch = begin<kMessages>(rows, row, packet, placeOf(packet));
    if (!batch)
        return;
    (*batch)[at(kMessages, "priority")].setNumber(row, static_cast<unsigned char>(packet.payload()[8]));
    batch->setText(at(kMessages, "text"), row, packet.text());
}

void RowTable::makeState(Batches& rows, const CTraceCursor& packet) const {
    using columns::kStates;
    const RowPlace place = placeOf(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kStates>(rows, row, packet, place);
    if (!batch)
        return;
    const char* const payload = packet.payload();
    const std::uint32_t machine = fourBytes(payload), instance = fourBytes(payload + 4), id = fourBytes(payload + 8);
    const bool isTransition = packet.TraceCode() == Transition;
    setKnown(*batch, at(kStates, "core"), row, place.core);
    batch->setUnsigned(at(kStates, "machine_id"), row, machine);
    m_file.setName(*batch, at(kStates, "machine"), row, TextSort::StateMachine, machine);
    batch->setUnsigned(at(kStates, "instance_id"), row, instance);
    m_file.setName(*batch, at(kStates, "instance"), row, TextSort::StateMachineInstance,
                   CTraceNames::pair(machine, instance));
    const std::uint64_t part = CTraceNames::pair(machine, id);
    const std::uint32_t* const target = isTransition ? m_file.targets.find(part) : &id;
    batch->setUnsigned(at(kStates, "transition_id"), row, isTransition ? id : kUnknown64);
    if (isTransition)
        m_file.setName(*batch, at(kStates, "transition"), row, TextSort::Transition, part);
    else
        (*batch)[at(kStates, "transition")].setNull(row);
    batch->setUnsigned(at(kStates, "state_id"), row, target ? *target : kUnknown64);
    if (target)
        m_file.setName(*batch, at(kStates, "state"), row, TextSort::State, CTraceNames::pair(machine, *target));
    else
        (*batch)[at(kStates, "state")].setNull(row);
    batch->setText(at(kStates, "data"), row,
                   isTransition ? std::string_view(payload + 24, packet.Length() - 24) : std::string_view());
}

// Rows that are made of many packets.

class ThreadTable {
public:
    struct Its {
        std::uint64_t packets = 0;
        std::uint64_t first = kUnknown64;
        std::uint64_t last = kUnknown64;

        void note(std::uint64_t count, std::uint64_t from, std::uint64_t to) {
            packets += count;
            first = std::min(first, from);
            last = last == kUnknown64 ? to : to == kUnknown64 ? last : std::max(last, to);
        }
    };
    struct Piece {
        void note(const ThreadTable& table, const CTraceCursor& packet) {
            const KindFacts& facts = factsOf(packet.TraceCode());
            if (facts.role == Role::Structure || facts.context != ContextSort::Core)
                return;
            const RowPlace place = placeOf(packet);
            const TickWindow& window = table.m_file.window;
            if ((window.from > 0 || window.to < UINT64_MAX) && !table.m_file.isWithin(place.tick))
                return;
            threads[place.thread].note(1, place.tick, place.tick);
        }
        Directory<std::uint32_t, Its> threads;
    };

    explicit ThreadTable(const TableFile& file) : m_file(file) {}
    void take(Piece&& piece, Batches&) {
        for (const auto& [number, its] : piece.threads)
            m_threads[number].note(its.packets, its.first, its.last);
    }
    void finish(const TraceFile&, Batches& rows) {
        using columns::kThreads;
        for (const auto& [number, its] : m_threads) {
            if (rows.empty() || rows.back().isFull())
                rows.emplace_back(m_file.layout);
            TableBatch& batch = rows.back();
            const std::size_t row = batch.add();
            batch[at(kThreads, "file")].setNumber(row, m_file.number);
            batch.setUnsigned(at(kThreads, "thread"), row, number == ~0U ? kUnknown64 : number);
            batch.setUnsigned(at(kThreads, "packets"), row, its.packets);
            m_file.setTicks(batch, at(kThreads, "first_tick"), at(kThreads, "first_ns"), row, its.first);
            m_file.setTicks(batch, at(kThreads, "last_tick"), at(kThreads, "last_ns"), row, its.last);
        }
    }

private:
    const TableFile& m_file;
    Directory<std::uint32_t, Its> m_threads;
};

class LossTable {
public:
    enum Reason : std::uint8_t { Damage, Broken, Cut, End };
    static constexpr const char* kReasons[] = {"damage", "broken", "cut", "end"};

    struct Loss {
        std::uint64_t offset;
        Reason reason;
        std::uint64_t size = kUnknown64;
        std::uint64_t tick = kUnknown64;
        bool isOfBefore = false; ///< the tick is that of a packet before the piece
    };
    struct Piece {
        void note(const LossTable&, const CTraceCursor& packet) {
            if (!hasPackets)
                begin = packet.offset();
            else if (packet.offset() > end)
                add({end, Damage, packet.offset() - end});
            hasPackets = true;
            end = packet.end();
            if (packet.TraceCode() == TraceBroken) {
                losses.push_back({packet.offset(), Broken, kUnknown64, packet.tick()});
            } else if (const unsigned announced = static_cast<unsigned char>(packet.payload()[-1]);
                       announced > packet.Length() && packet.textState() != CTraceCursor::Text::Counted) {
                add({packet.offset() + CPacketHeader::Len() + packet.Length(), Damage, announced - packet.Length()});
            }
            if (const std::uint64_t its = packet.tick(); its != kUnknown64)
                tick = its;
        }
        void add(Loss loss) {
            loss.tick = tick;
            loss.isOfBefore = tick == kUnknown64;
            losses.push_back(loss);
        }

        std::vector<Loss> losses;
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::uint64_t tick = kUnknown64; ///< the last one
        bool hasPackets = false;
    };

    LossTable(const TableFile& file, std::uint64_t begin) : m_file(file), m_end(begin) {}
    void take(Piece&& piece, Batches& rows) {
        if (!piece.hasPackets)
            return;
        if (piece.begin > m_end)
            add({m_end, Damage, piece.begin - m_end, m_tick}, rows);
        for (Loss& loss : piece.losses) {
            if (loss.isOfBefore)
                loss.tick = m_tick;
            add(loss, rows);
        }
        m_end = piece.end;
        if (piece.tick != kUnknown64)
            m_tick = piece.tick;
    }
    void finish(const TraceFile& trace, Batches& rows) {
        const TraceReport& report = trace.report();
        if (report.end == TraceEnd::Unread || trace.tableError())
            return; // a range ends here, or a table has no places
        if (report.endOffset > m_end)
            add({m_end, Damage, report.endOffset - m_end, m_tick}, rows);
        if (report.end == TraceEnd::InPacket)
            add({report.endOffset, Cut, trace.size() - report.endOffset, m_tick}, rows);
        if (report.end == TraceEnd::Missing || report.end == TraceEnd::InText || report.missing > 0)
            add({trace.size(), End, report.missing > 0 ? report.missing : kUnknown64, m_tick}, rows);
    }

private:
    void add(const Loss& loss, Batches& rows) const {
        using columns::kLosses;
        if (rows.empty() || rows.back().isFull())
            rows.emplace_back(m_file.layout);
        TableBatch& batch = rows.back();
        const std::size_t row = batch.add();
        batch[at(kLosses, "file")].setNumber(row, m_file.number);
        batch.setUnsigned(at(kLosses, "file_offset"), row, loss.offset);
        batch[at(kLosses, "reason")].setNumber(row, loss.reason);
        batch.setUnsigned(at(kLosses, "size"), row, loss.size);
        m_file.setTicks(batch, at(kLosses, "tick"), at(kLosses, "time_ns"), row, loss.tick);
    }

    const TableFile& m_file;
    std::uint64_t m_end;
    std::uint64_t m_tick = kUnknown64;
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
            if (rows.empty() || rows.back().isFull())
                rows.emplace_back(file.layout);
            TableBatch& batch = rows.back();
            const std::size_t row = batch.add();
            batch[at(kFunctions, "file")].setNumber(row, file.number);
            batch.setUnsigned(at(kFunctions, "function_id"), row, id);
            file.setName(batch, at(kFunctions, "function"), row, TextSort::Function, id);
        }
    }

private:
    static std::uint32_t subjectIn(const CTraceCursor& packet) {
        return fourBytes(packet.payload() + CCoreContext::Len());
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
        Definitions all;
        TraceShares shares;
        shares.threads = threads;
        input.trace->walkInParts(
            all, [](Definitions& its, const CTraceCursor& packet) { its.note(packet); }, shares);
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
            while (cursor.next()) {
                if (factsOf(cursor.TraceCode()).role == Role::Definition)
                    names.note(*PacketPointer(cursor.packet()), static_cast<unsigned>(file));
            }
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
        }
        m_isPrepared = true;
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
        CTraceCursor cursor(m_knowledge->definitions[number]);
        while (cursor.next()) {
            if (const auto value = Definitions::counterValue(cursor))
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
        if (input.bytes || (m_options.firstPage == 0 && m_options.pages == UINT64_MAX))
            return true;
        TracePages pages(input.path);
        if (!pages.arePages() || pages.isRecording())
            return m_options.firstPage == 0 && m_options.pages > 0;
        const std::uint64_t count = pages.count();
        const std::uint64_t first = m_options.firstPage;
        if (first >= count || m_options.pages == 0)
            return false;
        from = pages::beginOf(first);
        if (m_options.pages < count - first)
            m_until = pages::beginOf(first + m_options.pages);
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
    bool m_wantsNames = false; ///< or what else is told by definitions
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
