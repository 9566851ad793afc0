#include "quorvex/analysis/RowTable.h"

#include "quorvex/analysis/TableColumns.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <optional>

namespace Quorvex::detail {

using columns::at;

namespace {

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

} // namespace

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
    const PacketPlace place = PacketPlace::of(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kPackets>(rows, row, packet, place);
    if (!batch)
        return;
    (*batch)[at(kPackets, "kind")].setNumber(row, m_kinds[code]);
    setKnown(*batch, at(kPackets, "core"), row, place.core);
    m_file.setThread<kPackets>(*batch, row, place.thread);
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
    const PacketPlace place = PacketPlace::of(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kCounters>(rows, row, packet, place);
    if (!batch)
        return;
    setKnown(*batch, at(kCounters, "core"), row, place.core);
    m_file.setThread<kCounters>(*batch, row, place.thread);
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
    const PacketPlace place = PacketPlace::of(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kVariables>(rows, row, packet, place);
    if (!batch)
        return;
    setKnown(*batch, at(kVariables, "core"), row, place.core);
    m_file.setThread<kVariables>(*batch, row, place.thread);
    setAddress(*batch, at(kVariables, "address"), row, place.address);
    const std::uint32_t id = fourBytes(behind(packet, 0).data());
    batch->setUnsigned(at(kVariables, "variable_id"), row, id);
    m_file.setName(*batch, at(kVariables, "variable"), row, TextSort::Variable, id);
    (*batch)[at(kVariables, "is_write")].setFlag(row, absoluteKind(packet.TraceCode()) == VariableWrite);
    setData<kVariables>(*batch, row, behind(packet, 4));
}

void RowTable::makeEvent(Batches& rows, const CTraceCursor& packet) const {
    using columns::kEvents;
    const PacketPlace place = PacketPlace::of(packet);
    std::size_t row = 0;
    TableBatch* const batch = begin<kEvents>(rows, row, packet, place);
    if (!batch)
        return;
    setKnown(*batch, at(kEvents, "core"), row, place.core);
    m_file.setThread<kEvents>(*batch, row, place.thread);
    setAddress(*batch, at(kEvents, "address"), row, place.address);
    const std::uint32_t id = fourBytes(behind(packet, 0).data());
    batch->setUnsigned(at(kEvents, "event_id"), row, id);
    m_file.setName(*batch, at(kEvents, "event"), row, TextSort::Event, id);
    setData<kEvents>(*batch, row, behind(packet, 4));
}

void RowTable::makeMessage(Batches& rows, const CTraceCursor& packet) const {
    using columns::kMessages;
    std::size_t row = 0;
    TableBatch* const batch = begin<kMessages>(rows, row, packet, PacketPlace::of(packet));
    if (!batch)
        return;
    (*batch)[at(kMessages, "priority")].setNumber(row, static_cast<unsigned char>(packet.payload()[8]));
    batch->setText(at(kMessages, "text"), row, packet.text());
}

void RowTable::makeState(Batches& rows, const CTraceCursor& packet) const {
    using columns::kStates;
    const PacketPlace place = PacketPlace::of(packet);
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

} // namespace Quorvex::detail
