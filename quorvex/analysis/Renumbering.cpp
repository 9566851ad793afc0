#include "quorvex/analysis/Renumbering.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <memory>
#include <new>
#include <optional>
#include <utility>

namespace Quorvex {

namespace {

constexpr std::uint64_t kPart = 0xFFFFFFFF;
/// New numbers lie below that one.
constexpr std::uint64_t kAboveNew = 0xFFFFFFFF;
/// Fits no field that holds an identifier.
constexpr std::uint64_t kTooWide = kPart + 1;

bool isNoFunction(TextSort sort, std::uint64_t id) {
    return sort == TextSort::Function && id == CFunctionEnter::kNoFunction;
}

/// Calls `take(identifier, value)` with what a packet refers to: the sort and the identifier, that of a part of a state
/// machine with the number of its machine. What is put into the value comes to stand in the field.
template <class Take> bool changeReferences(CPacket& packet, Take take) {
    std::uint64_t machine = 0;
    return changeNumbers(packet, [&](FieldMeaning meaning, std::string_view name, std::uint64_t& value) {
        const Reference* reference = meaning == FieldMeaning::Id ? referenceOf(name) : nullptr;
        if (!reference || isNoFunction(reference->sort, value))
            return;
        const std::uint64_t id = isPartOfMachine(reference->sort) ? machine << 32 | value : value;
        if (reference->sort == TextSort::StateMachine)
            machine = value;
        take(CTraceNames::Key(reference->sort, id), value);
    });
}

} // namespace

bool Renumbering::Meaning::isNamedOtherwise(const Meaning& other) const {
    return !names.empty() && !other.names.empty() &&
           std::ranges::none_of(names, [&](const std::string& name) { return other.names.contains(name); });
}

bool Renumbering::Meaning::agreesWith(const Meaning& other) const {
    if (!isFixed || !other.isFixed || isNamedOtherwise(other))
        return false;
    return std::ranges::all_of(facts, [&](const Fact& fact) {
        const auto same = std::ranges::find(other.facts, fact.kind, &Fact::kind);
        return same == other.facts.end() || same->fields == fact.fields;
    });
}

void Renumbering::Meaning::add(const Meaning& other) {
    names.insert(other.names.begin(), other.names.end());
    for (const Fact& fact : other.facts) {
        if (std::ranges::find(facts, fact.kind, &Fact::kind) == facts.end())
            facts.push_back(fact);
    }
}

void Renumbering::note(const CPacket& packet) {
    const KindFacts& kind = factsOf(packet.TraceCode());
    const bool isDefinition = kind.role == Role::Definition;
    if (!isDefinition && kind.role != Role::Undefinition)
        return;
    const std::optional<Subject> subject = subjectOf(packet);
    if (!subject)
        return;
    // The unit of a counter is not its name, but something else that is told of it.
    const bool isName = subject->sort != TextSort::CounterUnit;
    const Key key(isName ? subject->sort : TextSort::Counter, subject->id);
    Meaning& meaning = m_noted[key];
    if (!isDefinition) {
        meaning.isFixed = false;
        return;
    }
    meaning.isDefined = true;
    const CCharStringSequence* text = textOf(packet);
    if (isName && text && !text->empty())
        meaning.names.emplace(text->view());

    // What remains without its identifiers, and without when and where it was told.
    const std::unique_ptr<CPacket> copy(CPacketFactory::duplicate(const_cast<CPacket*>(&packet))); // only looks
    if (!copy)
        throw std::bad_alloc();
    Fact fact{packet.TraceCode(), {}, {}};
    changeReferences(*copy, [&](const Key& identifier, std::uint64_t& value) {
        if (identifier != key && identifier.first != TextSort::StateMachine)
            fact.references.push_back(identifier);
        value = 0;
    });
    changeNumbers(*copy, [&](FieldMeaning field, std::string_view, std::uint64_t& value) {
        const bool isPlace = field == FieldMeaning::Context || field == FieldMeaning::Unit;
        if (field == FieldMeaning::Tick || field == FieldMeaning::Address ||
            (isPlace && kind.context == ContextSort::Core))
            value = 0;
    });
    fact.fields.resize(copy->StreamSize());
    copy->write(fact.fields.data(), static_cast<unsigned>(fact.fields.size()));
    if (isName)
        fact.fields.resize(CPacketHeader::Len() + copy->Length());
    fact.fields.resize(fact.fields.find_last_not_of('\0') + 1);

    const auto told = std::ranges::find(meaning.facts, fact.kind, &Fact::kind);
    if (told == meaning.facts.end())
        meaning.facts.push_back(std::move(fact));
    else if (told->fields != fact.fields || told->references != fact.references)
        meaning.isFixed = false;
    if (meaning.names.size() > 1)
        meaning.isFixed = false;
}

void Renumbering::endTrace() {
    const std::size_t trace = m_traces++;
    std::erase_if(m_noted, [](const auto& noted) { return !noted.second.isDefined; });
    const bool isApart = std::ranges::any_of(m_noted, [&](const auto& noted) {
        const auto [sort, id] = keyOf(trace, noted.first);
        const auto number = m_numbers.find({0, sort, id});
        return number != m_numbers.end() && number->second &&
               m_meanings.at({sort, *number->second}).isNamedOtherwise(noted.second);
    });
    if (isApart)
        m_apart.insert(trace);
    // Types come before variables, and machines before their states, as their sorts do.
    for (auto& [identifier, meaning] : m_noted) {
        for (Fact& fact : meaning.facts) {
            for (const Key& reference : std::exchange(fact.references, {}))
                fact.fields += "," + std::to_string(numberOf(trace, reference).value_or(kTooWide));
        }
        const Key key = keyOf(trace, identifier);
        const Number number = define(key, meaning);
        const auto [own, isNew] = m_numbers.try_emplace({processOf(trace), key.first, key.second}, number);
        if (own->second != number)
            m_numbers[{trace + 1, key.first, key.second}] = number;
    }
    m_noted.clear();
}

Renumbering::Number Renumbering::define(Key key, const Meaning& meaning) {
    const auto shares = [&](std::uint64_t number) {
        const auto taken = m_meanings.find({key.first, number});
        if (taken == m_meanings.end() || taken->second.id != key.second || !taken->second.agreesWith(meaning))
            return false;
        taken->second.add(meaning);
        return true;
    };
    if (shares(key.second))
        return key.second;
    if (const auto others = m_others.find(key); others != m_others.end()) {
        if (const auto other = std::ranges::find_if(others->second, shares); other != others->second.end())
            return *other;
    }
    const Number number = m_meanings.contains(key) ? newNumber(key) : key.second;
    if (number)
        (m_meanings[{key.first, *number}] = meaning).id = key.second;
    return number;
}

Renumbering::Number Renumbering::newNumber(Key key) {
    const std::uint64_t machine = key.second & ~kPart;
    std::uint64_t& number = m_last.try_emplace(Key(key.first, machine), machine | kAboveNew).first->second;
    do {
        if ((number & kPart) <= m_lowest)
            return std::nullopt;
        --number;
    } while (m_meanings.contains({key.first, number}));
    m_others[key].push_back(number);
    ++m_given;
    m_changes = true;
    return number;
}

bool Renumbering::isFree(Key key) const {
    const std::uint64_t id = key.second & kPart;
    return (!m_changes || id < m_lowest || id >= kAboveNew) && !m_meanings.contains(key);
}

Renumbering::Key Renumbering::keyOf(std::size_t trace, Key identifier) {
    auto [sort, id] = identifier;
    if (isPartOfMachine(sort))
        id = numberOf(trace, {TextSort::StateMachine, id >> 32}).value_or(id >> 32) << 32 | (id & kPart);
    return {sort, id};
}

Renumbering::Number Renumbering::numberOf(std::size_t trace, Key identifier) {
    const auto [sort, id] = keyOf(trace, identifier);
    for (const Owner owner : {trace + 1, Owner{0}}) {
        if (owner == 0 && m_apart.contains(trace))
            break;
        if (const auto number = m_numbers.find({owner, sort, id}); number != m_numbers.end())
            return number->second;
    }
    if (isFree({sort, id}))
        return id;
    // What others define means nothing here.
    const Number number = newNumber({sort, id});
    if (number) {
        m_meanings[{sort, *number}].isFixed = false; // nobody defines it
        m_numbers[{processOf(trace), sort, id}] = number;
    }
    return number;
}

bool Renumbering::change(CPacket& packet, std::size_t trace) {
    return !m_changes || changeReferences(packet, [&](const Key& identifier, std::uint64_t& value) {
        const Number number = numberOf(trace, identifier);
        const std::uint64_t mask = isPartOfMachine(identifier.first) ? kPart : ~std::uint64_t{0};
        value = number ? *number & mask : kTooWide;
    });
}

} // namespace Quorvex
