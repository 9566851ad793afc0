#include "quorvex/analysis/Renumbering.h"

#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

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

class Renumbering::Numbers {
public:
    explicit Numbers(std::uint32_t lowest) : m_lowest(lowest) {}

    void note(const CPacket& packet);
    void endTrace();
    bool change(CPacket& packet, std::size_t trace);
    std::uint64_t given() const { return m_given; }

private:
    using Key = CTraceNames::Key;
    using Number = std::optional<std::uint64_t>;

    /// What is told of an identifier beside its name by definitions of one kind: their fields, and what those refer to.
    struct Fact {
        tagTCode kind;
        std::string fields;
        std::vector<Key> references;
    };
    /// What an identifier means.
    struct Meaning {
        std::uint64_t id = 0; ///< that identifier
        std::set<std::string> names;
        std::vector<Fact> facts; ///< one of a kind
        bool isDefined = false;
        bool isFixed = true; ///< it means the same all the time

        bool isNamedOtherwise(const Meaning& other) const;
        bool agreesWith(const Meaning& other) const;
        void add(const Meaning& other);
    };

    /// What one identifier means by its new numbers. Those with which a meaning can agree are found by what fewest of
    /// them tell alike, or not at all: its name, or its fact of a kind.
    class Variants {
    public:
        void note(std::uint64_t number, const Meaning& meaning);
        /// The first that is one, in the order in which they were given.
        template <class IsIt> Number find(const Meaning& meaning, IsIt isIt) const;

    private:
        using Ones = std::set<std::uint64_t, std::greater<>>; ///< in the order in which they were given
        struct Facet {
            std::map<std::string, Ones, std::less<>> alike;
            Ones silent; ///< they do not tell it
        };
        template <class Take> static void eachFacet(const Meaning& meaning, Take take) {
            for (const std::string& name : meaning.names)
                take(Invalid, name);
            for (const Fact& fact : meaning.facts)
                take(fact.kind, fact.fields);
        }

        Ones m_all;
        std::map<tagTCode, Facet> m_facets; ///< by kind; the name by none
    };

    /// Who means something by an identifier: 0 is the first process, trace + 1 a trace that is on its own in that.
    using Owner = std::size_t;
    Owner processOf(std::size_t trace) const { return m_apart.contains(trace) ? trace + 1 : 0; }

    /// The identifier with the number of its state machine, if it is of one.
    Key keyOf(std::size_t trace, Key identifier);
    /// None where none is left, as in the next two.
    Number numberOf(std::size_t trace, Key identifier);
    /// The number of what is defined so: one that is taken by the same, or else one of its own.
    Number define(Key key, const Meaning& meaning);
    Number newNumber(Key key);
    /// Whether what nothing defines can keep that number.
    bool isFree(Key key) const;

    std::map<Key, Meaning> m_noted; ///< of the trace that is noted
    std::map<std::tuple<Owner, TextSort, std::uint64_t>, Number> m_numbers;
    std::map<Key, Meaning> m_meanings;   ///< of numbers that are taken
    std::map<Key, Variants> m_others;    ///< of identifiers that have got new numbers
    std::map<Key, std::uint64_t> m_last; ///< new number, by sort and state machine
    std::set<std::size_t> m_apart;       ///< traces that are not of the first process
    std::size_t m_traces = 0;            ///< that have been noted
    std::uint32_t m_lowest;
    std::uint64_t m_given = 0;
    bool m_changes = false;
};

bool Renumbering::Numbers::Meaning::isNamedOtherwise(const Meaning& other) const {
    return !names.empty() && !other.names.empty() &&
           std::ranges::none_of(names, [&](const std::string& name) { return other.names.contains(name); });
}

bool Renumbering::Numbers::Meaning::agreesWith(const Meaning& other) const {
    if (!isFixed || !other.isFixed || isNamedOtherwise(other))
        return false;
    return std::ranges::all_of(facts, [&](const Fact& fact) {
        const auto same = std::ranges::find(other.facts, fact.kind, &Fact::kind);
        return same == other.facts.end() || same->fields == fact.fields;
    });
}

void Renumbering::Numbers::Meaning::add(const Meaning& other) {
    names.insert(other.names.begin(), other.names.end());
    for (const Fact& fact : other.facts) {
        if (std::ranges::find(facts, fact.kind, &Fact::kind) == facts.end())
            facts.push_back(fact);
    }
}

void Renumbering::Numbers::Variants::note(std::uint64_t number, const Meaning& meaning) {
    if (m_all.insert(number).second) {
        for (auto& [kind, facet] : m_facets)
            facet.silent.insert(number);
    }
    eachFacet(meaning, [&](tagTCode kind, const std::string& told) {
        const auto [facet, isNew] = m_facets.try_emplace(kind);
        if (isNew)
            facet->second.silent = m_all;
        facet->second.silent.erase(number);
        facet->second.alike[told].insert(number);
    });
}

template <class IsIt>
Renumbering::Numbers::Number Renumbering::Numbers::Variants::find(const Meaning& meaning, IsIt isIt) const {
    const Ones kNone;
    const Ones *alike = &m_all, *silent = &kNone;
    eachFacet(meaning, [&](tagTCode kind, const std::string& told) {
        const auto facet = m_facets.find(kind);
        if (facet == m_facets.end())
            return;
        const auto found = facet->second.alike.find(told);
        const Ones& same = found == facet->second.alike.end() ? kNone : found->second;
        if (same.size() + facet->second.silent.size() < alike->size() + silent->size()) {
            alike = &same;
            silent = &facet->second.silent;
        }
    });
    std::vector<std::uint64_t> ones;
    std::ranges::merge(*alike, *silent, std::back_inserter(ones), std::greater<>());
    const auto one = std::ranges::find_if(ones, isIt);
    return one == ones.end() ? Number() : Number(*one);
}

void Renumbering::Numbers::note(const CPacket& packet) {
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

void Renumbering::Numbers::endTrace() {
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

Renumbering::Numbers::Number Renumbering::Numbers::define(Key key, const Meaning& meaning) {
    const auto shares = [&](std::uint64_t number) {
        const auto taken = m_meanings.find({key.first, number});
        if (taken == m_meanings.end() || taken->second.id != key.second || !taken->second.agreesWith(meaning))
            return false;
        taken->second.add(meaning);
        return true;
    };
    if (shares(key.second))
        return key.second;
    const bool isFirst = !m_meanings.contains(key);
    Variants* const others = isFirst || !meaning.isFixed ? nullptr : &m_others[key];
    Number number = others ? others->find(meaning, shares) : std::nullopt;
    if (!number) {
        number = isFirst ? key.second : newNumber(key);
        if (number)
            (m_meanings[{key.first, *number}] = meaning).id = key.second;
    }
    if (number && others)
        others->note(*number, meaning);
    return number;
}

Renumbering::Numbers::Number Renumbering::Numbers::newNumber(Key key) {
    const std::uint64_t machine = key.second & ~kPart;
    std::uint64_t& number = m_last.try_emplace(Key(key.first, machine), machine | kAboveNew).first->second;
    do {
        if ((number & kPart) <= m_lowest)
            return std::nullopt;
        --number;
    } while (m_meanings.contains({key.first, number}));
    ++m_given;
    m_changes = true;
    return number;
}

bool Renumbering::Numbers::isFree(Key key) const {
    const std::uint64_t id = key.second & kPart;
    return (!m_changes || id < m_lowest || id >= kAboveNew) && !m_meanings.contains(key);
}

Renumbering::Numbers::Key Renumbering::Numbers::keyOf(std::size_t trace, Key identifier) {
    auto [sort, id] = identifier;
    if (isPartOfMachine(sort))
        id = numberOf(trace, {TextSort::StateMachine, id >> 32}).value_or(id >> 32) << 32 | (id & kPart);
    return {sort, id};
}

Renumbering::Numbers::Number Renumbering::Numbers::numberOf(std::size_t trace, Key identifier) {
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

bool Renumbering::Numbers::change(CPacket& packet, std::size_t trace) {
    return !m_changes || changeReferences(packet, [&](const Key& identifier, std::uint64_t& value) {
        const Number number = numberOf(trace, identifier);
        const std::uint64_t mask = isPartOfMachine(identifier.first) ? kPart : ~std::uint64_t{0};
        value = number ? *number & mask : kTooWide;
    });
}

Renumbering::Renumbering(std::uint32_t lowest) : m_numbers(platform::makeOwned<Numbers>(lowest)) {}

Renumbering::~Renumbering() = default;

void Renumbering::note(const CPacket& packet) {
    m_numbers->note(packet);
}

void Renumbering::endTrace() {
    m_numbers->endTrace();
}

bool Renumbering::change(CPacket& packet, std::size_t trace) {
    return m_numbers->change(packet, trace);
}

std::uint64_t Renumbering::given() const {
    return m_numbers->given();
}

} // namespace Quorvex
