#include "quorvex/analysis/EventComparison.h"

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <map>
#include <memory>

namespace Quorvex {

namespace {

constexpr std::string_view kKind = "Kind", kText = "Text";

unsigned byteAt(std::string_view event, std::size_t at) {
    return static_cast<unsigned char>(event[at]);
}

std::uint32_t idAt(std::string_view event, std::size_t at) {
    return loadLittleEndian<std::uint32_t>(event.data() + at);
}

/// Header and payload of an event, without its text.
std::size_t sizeOfPacket(std::string_view event) {
    return CPacketHeader::Len() + byteAt(event, 1);
}

std::unique_ptr<CPacket> packetOf(std::string_view event) {
    unsigned consumed = 0;
    return std::unique_ptr<CPacket>(
        CPacketFactory::getCPacket(event.data(), static_cast<unsigned>(event.size()), consumed));
}

/// The identifier of that sort as CTraceNames takes it.
std::uint64_t keyId(TextSort sort, std::uint32_t machine, std::uint32_t id) {
    return isPartOfMachine(sort) ? CTraceNames::pair(machine, id) : id;
}

} // namespace

/// Where a field stands in events with the same header.
struct EventComparison::Slot {
    std::string_view name;
    FieldMeaning meaning;
    unsigned offset;
    unsigned size;
    TextSort refersTo;
    unsigned machine; ///< offset of the state machine that it is of

    std::string_view in(std::string_view event) const { return event.substr(offset, size); }
    std::uint64_t idIn(std::string_view event) const {
        return keyId(refersTo, idAt(event, machine), idAt(event, offset));
    }
};

struct EventComparison::Names {
    CTraceNames names[2];
    std::map<std::pair<unsigned, unsigned>, Shape> shapes; ///< by the bytes of the header

    const std::string& of(Side side, TextSort sort, std::uint64_t id) {
        return names[side].name(sort, names[side].numberOf(sort, id));
    }
};

EventComparison::EventComparison(Rules rules)
    : m_rules(rules),
      m_isExact(!rules.ignoreTime && !rules.ignorePlace && !rules.byName),
      m_names(platform::makeOwned<Names>()) {}

EventComparison::~EventComparison() = default;

void EventComparison::note(Side side, std::string_view event) {
    const auto code = tagTCode(byteAt(event, 0));
    if (code == Message || factsOf(code).role == Role::Definition)
        m_names->names[side].note(*packetOf(event));
}

const EventComparison::Shape& EventComparison::shapeOf(std::string_view event) {
    const auto [at, isNew] = m_names->shapes.try_emplace({byteAt(event, 0), byteAt(event, 1)});
    Shape& shape = at->second;
    if (!isNew)
        return shape;
    unsigned offset = CPacketHeader::Len(), machine = CPacketHeader::Len();
    const auto add = [&]<class T>(FieldMeaning meaning, const char* name, const T& value) {
        const unsigned size = FieldCodec<T>::size(value);
        const bool isId = meaning == FieldMeaning::Id && size == sizeof(std::uint32_t);
        const Reference* reference = isId ? referenceOf(name) : nullptr;
        const TextSort sort = reference ? reference->sort : TextSort::None;
        if (sort == TextSort::StateMachine)
            machine = offset;
        shape.push_back({name, meaning, offset, size, sort, machine});
        offset += size;
    };
    const auto packet = packetOf(event);
    const auto addParts = [&add](const auto& kind) {
        kind.visitParts([&add]<class Part>(const Part& part) { Part::fields(part, add); });
    };
    if (!visitKind(*packet, addParts))
        shape.push_back({kText, FieldMeaning::Bytes, CPacketHeader::Len(), byteAt(event, 1), TextSort::None, 0});
    return shape;
}

bool EventComparison::isSame(const Slot& one, std::string_view first, const Slot& other,
                             std::string_view second) const {
    if ((m_rules.ignoreTime && one.meaning == FieldMeaning::Tick) ||
        (m_rules.ignorePlace && one.meaning == FieldMeaning::Context))
        return true;
    if (m_rules.byName && one.refersTo != TextSort::None) {
        const std::string& name = m_names->of(First, one.refersTo, one.idIn(first));
        const std::string& otherName = m_names->of(Second, other.refersTo, other.idIn(second));
        if (!name.empty() && !otherName.empty())
            return name == otherName;
    }
    return one.in(first) == other.in(second);
}

std::size_t EventComparison::differences(std::string_view first, std::string_view second,
                                         std::vector<std::string_view>* names) {
    std::size_t count = 0;
    const auto differ = [&](std::string_view name) {
        ++count;
        if (names)
            names->push_back(name);
    };
    if (first[0] != second[0]) {
        differ(kKind);
        return count;
    }
    const Shape &one = shapeOf(first), &other = shapeOf(second);
    for (std::size_t i = 0; i < std::max(one.size(), other.size()); ++i) {
        if (i >= one.size())
            differ(other[i].name);
        else if (i >= other.size() || one[i].name != other[i].name || !isSame(one[i], first, other[i], second))
            differ(one[i].name);
    }
    if (first.substr(sizeOfPacket(first)) != second.substr(sizeOfPacket(second)))
        differ(kText);
    return count;
}

std::vector<std::string_view> EventComparison::differences(std::string_view first, std::string_view second) {
    std::vector<std::string_view> names;
    differences(first, second, &names);
    return names;
}

std::vector<EventField> EventComparison::fieldsOf(std::string_view event) {
    std::vector<EventField> fields;
    for (const Slot& slot : shapeOf(event)) {
        const std::uint64_t id = slot.refersTo != TextSort::None ? slot.idIn(event) : 0;
        fields.push_back({slot.name, slot.meaning, std::string(slot.in(event)), slot.refersTo, id});
    }
    std::string_view run = event.substr(sizeOfPacket(event));
    if (!run.empty())
        fields.push_back({kText, FieldMeaning::Bytes, {}});
    for (; !run.empty(); run.remove_prefix(sizeOfPacket(run)))
        fields.back().bytes += run.substr(CPacketHeader::Len(), byteAt(run, 1));
    return fields;
}

CTraceNames& EventComparison::namesOf(Side side) {
    return m_names->names[side];
}

const std::string& EventComparison::nameOf(Side side, const EventField& field) const {
    return m_names->of(side, field.refersTo, field.id);
}

} // namespace Quorvex
