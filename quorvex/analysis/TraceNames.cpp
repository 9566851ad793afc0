#include "quorvex/analysis/TraceNames.h"

#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <tuple>
#include <type_traits>
#include <vector>

namespace Quorvex {

namespace {

/// Hands fields on as numbers.
class Numbers {
public:
    Numbers(void (*take)(void*, const NumberField&), void* to) : m_take(take), m_to(to) {}

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* name, const T& value) {
        if constexpr (std::is_integral_v<T>) {
            m_take(m_to,
                   {meaning, name, static_cast<std::uint64_t>(value), !isUnknown(meaning, value), std::is_signed_v<T>});
        } else if constexpr (std::is_enum_v<T>) {
            m_take(m_to, {meaning, name, static_cast<std::uint64_t>(value), true});
        } else if constexpr (requires { value.data() + value.Length(); }) {
            bytes(meaning, name, value.data(), value.Length());
        } else if constexpr (requires { value.data() + value.size(); }) {
            bytes(meaning, name, value.data(), value.size());
        } else {
            char wire[UINT8_MAX + 1];
            FieldCodec<T>::encode(value, wire);
            bytes(meaning, name, reinterpret_cast<const unsigned char*>(wire), FieldCodec<T>::size(value));
        }
    }

private:
    void bytes(FieldMeaning meaning, const char* name, const unsigned char* from, std::size_t count) {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < std::min(count, sizeof value); ++i)
            value |= std::uint64_t{from[i]} << 8 * i;
        m_take(m_to, {meaning, name, value, count > 0, false, {reinterpret_cast<const char*>(from), count}});
    }

    void (*m_take)(void*, const NumberField&);
    void* m_to;
};

/// Puts what others make of whole numbers back into their fields, which are those of a packet that may be changed.
class NumberChange {
public:
    using Change = void (*)(void*, FieldMeaning, const char*, std::uint64_t&);
    NumberChange(Change change, void* to) : m_change(change), m_to(to) {}

    template <class Part> void operator()(const Part& part) { Part::fields(const_cast<Part&>(part), *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* name, T& field) {
        if constexpr (std::is_integral_v<T>) {
            using Unsigned = std::make_unsigned_t<T>;
            std::uint64_t value = static_cast<Unsigned>(field);
            m_change(m_to, meaning, name, value);
            if (const auto fitting = static_cast<Unsigned>(value); fitting == value)
                field = static_cast<T>(fitting);
            else
                m_fits = false;
        }
    }
    bool fits() const { return m_fits; }

private:
    Change m_change;
    void* m_to;
    bool m_fits = true;
};

constexpr Reference kReferences[] = {
    {"CntrId", TextSort::Counter},
    {"EvtId", TextSort::Event},
    {"ExprId", TextSort::Expression},
    {"FuncId", TextSort::Function},
    {"LineId", TextSort::Line},
    {"ProcId", TextSort::Process},
    {"SignalId", TextSort::Signal},
    {"SourceState", TextSort::State, false},
    {"SrcFuncId", TextSort::Function, false},
    {"State", TextSort::State},
    {"StateMachine", TextSort::StateMachine},
    {"StateMachineInstance", TextSort::StateMachineInstance},
    {"TargetState", TextSort::State, false},
    {"TgtFuncId", TextSort::Function},
    {"Transition", TextSort::Transition},
    {"TypeId", TextSort::Type},
    {"VarId", TextSort::Variable},
};
static_assert(std::ranges::is_sorted(kReferences, {}, &Reference::field));

constexpr std::uint64_t kPart = 0xFFFFFFFF;

} // namespace

void detail::eachNumber(const CPacket& packet, void (*take)(void*, const NumberField&), void* to) {
    Numbers numbers(take, to);
    visitKind(packet, [&numbers](const auto& kind) { kind.visitParts(numbers); });
}

bool detail::changeNumbers(CPacket& packet, NumberChange::Change change, void* to) {
    NumberChange numbers(change, to);
    visitKind(packet, [&numbers](const auto& kind) { kind.visitParts(numbers); });
    return numbers.fits();
}

const Reference* referenceOf(std::string_view field) {
    const auto* row = std::ranges::lower_bound(kReferences, field, {}, &Reference::field);
    return row != std::end(kReferences) && row->field == field ? row : nullptr;
}

std::string_view wholeTextOf(const CPacket& packet) {
    if (const auto* string = packetAs<CCharString>(packet))
        return {reinterpret_cast<const char*>(string->data()), string->Length()};
    const CCharStringSequence* text = textOf(packet);
    return text ? text->view() : std::string_view();
}

std::optional<Subject> subjectOf(const CPacket& packet) {
    // The first identifier tells; of a state machine, the last one, which is numbered within it.
    std::optional<Subject> subject;
    std::uint32_t machine = 0;
    eachNumber(packet, [&](const NumberField& field) {
        if (field.meaning != FieldMeaning::Id)
            return;
        if (!subject || subject->sort == TextSort::StateMachine || isPartOfMachine(subject->sort)) {
            const Reference* reference = referenceOf(field.name);
            const TextSort sort = reference ? reference->sort : TextSort::None;
            if (reference && !reference->isSubject)
                return;
            if (sort == TextSort::Function && field.value == CFunctionEnter::kNoFunction)
                return;
            subject = {sort, field.value};
            if (subject->sort == TextSort::StateMachine)
                machine = static_cast<std::uint32_t>(field.value);
        }
    });
    const KindFacts& facts = factsOf(packet.TraceCode());
    if (subject && facts.role == Role::Definition)
        subject->sort = facts.text;
    if (subject && isPartOfMachine(subject->sort))
        subject->id = CTraceNames::pair(machine, static_cast<std::uint32_t>(subject->id));
    return subject;
}

struct CTraceNames::Thread {
    std::string name;
    unsigned process;  ///< that has told it
    std::uint64_t pid; ///< of its program
};

struct CTraceNames::Numbers {
    std::map<std::tuple<unsigned, TextSort, std::uint64_t>, std::uint64_t> numbers;  ///< of what a process has named
    std::map<std::tuple<TextSort, std::uint64_t, std::string>, std::uint64_t> named; ///< by identifier and name
    std::map<Key, std::uint64_t> ids;      ///< behind numbers that are not the identifiers
    std::map<Key, std::uint64_t> lastNews; ///< the last number of nobody's, by sort and state machine
    std::vector<bool> apart;               ///< processes that are not the first one
    std::map<std::pair<unsigned, std::uint32_t>, Thread> threads;       ///< those of kAnyProcess are the last ones
    std::map<std::pair<unsigned, std::uint64_t>, std::string> programs; ///< by process and pid
    bool areProgramsAlike = true;                                       ///< all that have been told have one name
};

CTraceNames::CTraceNames() : m_numbers(platform::makeOwned<Numbers>()) {}

CTraceNames::~CTraceNames() = default;

bool CTraceNames::note(const CPacket& packet, unsigned process) {
    if (packet.TraceCode() == Message)
        noteMessage(wholeTextOf(packet), process);
    if (factsOf(packet.TraceCode()).role != Role::Definition)
        return true;
    const CCharStringSequence* text = textOf(packet);
    const std::optional<Subject> subject = text && !text->empty() ? subjectOf(packet) : std::nullopt;
    return !subject || give(process, keyOf(subject->sort, subject->id, process), text->view());
}

void CTraceNames::noteMessage(std::string_view text, unsigned process) {
    const RecordedFact fact(text);
    const std::string_view word = fact.word();
    if (word == "thread") {
        const auto number = static_cast<std::uint32_t>(fact.number("tid"));
        const Thread thread{fact.text("name"), process, fact.number("pid")};
        for (const unsigned whose : {process, kAnyProcess})
            m_numbers->threads.insert_or_assign({whose, number}, thread);
    } else if (word == "process" || word == "name") {
        std::string& name = m_numbers->programs[{process, fact.number("pid")}];
        if (word == "name") {
            name = fact.text("name");
        } else {
            const std::string path = fact.text("program");
            name = path.substr(path.rfind('/') + 1);
        }
        const auto& programs = m_numbers->programs;
        m_numbers->areProgramsAlike =
            m_numbers->areProgramsAlike && name == programs.begin()->second && name == programs.rbegin()->second;
    }
}

const CTraceNames::Thread* CTraceNames::threadOf(std::uint32_t thread, unsigned process) const {
    const auto& threads = m_numbers->threads;
    auto at = threads.find({process, thread});
    if (at == threads.end())
        at = threads.find({kAnyProcess, thread});
    return at == threads.end() ? nullptr : &at->second;
}

const std::string& CTraceNames::threadName(std::uint32_t thread, unsigned process) const {
    static const std::string kNone;
    const Thread* const its = threadOf(thread, process);
    if (!its || !its->name.empty())
        return its ? its->name : kNone;
    const auto program = m_numbers->programs.find({its->process, its->pid});
    return program == m_numbers->programs.end() ? kNone : program->second;
}

std::string CTraceNames::threadTitle(std::uint32_t thread, unsigned process) const {
    std::string title = threadName(thread, process);
    if (title.empty() || m_numbers->areProgramsAlike)
        return title;
    const auto& programs = m_numbers->programs;
    const Thread& its = *threadOf(thread, process);
    const auto program = programs.find({its.process, its.pid});
    // Threads that nobody gives a name have the start of their program's.
    if (program != programs.end() && !program->second.starts_with(title))
        title += " of " + program->second;
    return title;
}

std::string CTraceNames::threadText(std::uint32_t thread, unsigned process) const {
    const std::string title = threadTitle(thread, process);
    return "thread " + std::to_string(thread) + (title.empty() ? "" : " (" + title + ")");
}

std::vector<std::uint32_t> CTraceNames::threads(unsigned process) const {
    const auto& threads = m_numbers->threads;
    std::vector<std::uint32_t> numbers;
    for (auto at = threads.lower_bound({process, 0}); at != threads.end() && at->first.first == process; ++at)
        numbers.push_back(at->first.second);
    return numbers;
}

bool CTraceNames::give(unsigned process, Key key, std::string_view text) {
    const auto [sort, id] = key;
    const auto [own, isFirst] = m_numbers->numbers.try_emplace({process, sort, id}, id);
    const auto [at, isNew] = m_names.try_emplace({sort, own->second}, Name{std::string(text), process, 1});
    const auto [named, isNewText] = m_numbers->named.try_emplace({sort, id, std::string(text)}, own->second);
    Name& name = at->second;
    if (isNew)
        return true;
    if (name.text == text) {
        name.users += isFirst;
        return true;
    }
    if (isFirst) {
        // Another process means something else by it.
        if (isOfSame(process, name.process)) {
            m_numbers->apart.resize(std::max<std::size_t>(m_numbers->apart.size(), process + 1));
            m_numbers->apart[process] = true;
        }
    } else if (isNewText && name.users == 1) {
        // It is this process's own.
        const auto old = m_numbers->named.find({sort, id, name.text});
        if (old != m_numbers->named.end() && old->second == own->second)
            m_numbers->named.erase(old);
        name.text = text;
        return false;
    } else {
        --name.users;
    }
    if (isNewText) {
        named->second = newNumber(key);
        m_names.emplace(Key(sort, named->second), Name{std::string(text), process, 0});
    }
    own->second = named->second;
    ++m_names.at({sort, own->second}).users;
    return true;
}

CTraceNames::Key CTraceNames::keyOf(TextSort sort, std::uint64_t id, unsigned process) {
    if (isPartOfMachine(sort))
        id = numberOf(TextSort::StateMachine, id >> 32, process) << 32 | (id & kPart);
    return {sort, id};
}

bool CTraceNames::isOfSame(unsigned one, unsigned other) const {
    const auto isApart = [this](unsigned process) {
        return process < m_numbers->apart.size() && m_numbers->apart[process];
    };
    return one == other || (!isApart(one) && !isApart(other));
}

std::uint64_t CTraceNames::newNumber(Key key) {
    const std::uint64_t rest = key.second & ~kPart;
    // They are given away from the top down.
    std::uint64_t& number = m_numbers->lastNews.try_emplace(Key(key.first, rest), rest | kPart).first->second;
    do {
        --number;
    } while (m_names.contains({key.first, number}));
    m_numbers->ids.emplace(Key(key.first, number), key.second);
    m_hasOwn = true;
    return number;
}

std::uint64_t CTraceNames::ownNumberOf(TextSort sort, std::uint64_t id, unsigned process) {
    const Key key = keyOf(sort, id, process);
    const auto own = m_numbers->numbers.find({process, sort, key.second});
    if (own != m_numbers->numbers.end())
        return own->second;
    const auto named = m_names.find(key);
    if (named == m_names.end() || isOfSame(process, named->second.process))
        return key.second;
    // What others have named means nothing here.
    return m_numbers->numbers[{process, sort, key.second}] = newNumber(key);
}

std::uint64_t CTraceNames::idOf(TextSort sort, std::uint64_t number) const {
    const auto at = m_numbers->ids.find({sort, number});
    return at == m_numbers->ids.end() ? number : at->second;
}

const std::string& CTraceNames::name(TextSort sort, std::uint64_t number) const {
    static const std::string kNone;
    const auto at = m_names.find({sort, number});
    return at == m_names.end() ? kNone : at->second.text;
}

std::string CTraceNames::nameOrId(TextSort sort, std::uint64_t number) const {
    const std::string& known = name(sort, number);
    if (!known.empty())
        return known;
    char text[2 + 2 * sizeof(std::uint32_t)];
    return {text, putHexValue(text, static_cast<std::uint32_t>(idOf(sort, number)))};
}

} // namespace Quorvex
