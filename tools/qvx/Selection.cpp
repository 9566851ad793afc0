#include "Selection.h"

#include "Arguments.h"
#include "Moments.h"
#include "TraceInput.h"
#include "Words.h"
#include "Work.h"
#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/format/Glob.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <bitset>
#include <charconv>
#include <limits>
#include <map>
#include <optional>
#include <set>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t kMostProcesses = 64; ///< that are entered in each other on a core

/// Calls `use` with each part of texts between commas.
template <class Use> void eachPart(const std::vector<std::string>& texts, Use use) {
    for (std::string_view rest : texts) {
        while (!rest.empty()) {
            const std::size_t end = std::min(rest.find(','), rest.size());
            if (end > 0)
                use(rest.substr(0, end));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }
}

std::optional<std::uint32_t> numberOf(std::string_view text) {
    const bool isHex = text.starts_with("0x");
    text.remove_prefix(isHex ? 2 : 0);
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, isHex ? 16 : 10);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::set<std::uint32_t> numbersOf(const char* option, const std::vector<std::string>& texts) {
    std::set<std::uint32_t> numbers;
    eachPart(texts, [&](std::string_view text) {
        const auto number = numberOf(text);
        if (!number)
            throw Misuse(option, "'" + std::string(text) + "' is no number of 32 bits");
        numbers.insert(*number);
    });
    return numbers;
}

/// What a packet tells of where it happened, in either form.
struct Where {
    std::uint32_t core = ~0U;
    std::uint32_t thread = ~0U;

    static Where of(const CPacket& packet) {
        Where place;
        eachNumber(packet, [&place](const NumberField& field) {
            const std::string_view name = field.name;
            if (name == "HWCtx")
                place.core = static_cast<std::uint32_t>(field.value);
            else if (name == "SWCtx")
                place.thread = static_cast<std::uint32_t>(field.value);
        });
        return place;
    }
    static Where of(const CTraceCursor& packet) {
        if (const auto core = packet.contextOf<CCoreContext>())
            return {core->hwCtx, core->swCtx};
        if (const auto bus = packet.contextOf<CBusContext>())
            return {bus->hwCtx, ~0U};
        return of(*PacketPointer(packet.packet()));
    }
};

/// The options as they are told.
struct Told {
    std::optional<std::string> fromText, toText;
    std::vector<std::string> coreTexts, threadTexts, processTexts, kindTexts, namePatterns;
    std::uint64_t limit = kNone;
    std::uint64_t tail = kNone;
};

} // namespace

struct Selection::State : Told {
    /// A packet of a trace, as what it is given as.
    struct Given {
        const CTraceCursor* cursor;
        const CPacket* packet;
        std::uint64_t tick;

        tagTCode code() const { return cursor ? cursor->TraceCode() : packet->TraceCode(); }
        Where place() const { return cursor ? Where::of(*cursor) : Where::of(*packet); }
        /// Calls `use` with it as an object.
        template <class Use> auto object(Use use) const {
            return packet ? use(*packet) : use(std::as_const(*PacketPointer(cursor->packet())));
        }
    };

    void begin(const std::vector<std::string>& files, bool withClock);
    void settle();
    void learnStart(const CTraceCursor& packet);
    void learnThreads(const std::vector<std::string>& files);
    bool takes(std::size_t file, const Given& packet);
    bool asksPlace() const { return !cores.empty() || asksThread() || !processTexts.empty(); }
    bool asksThread() const { return !threads.empty() || !threadPatterns.empty(); }
    bool takesThread(std::size_t file, std::uint32_t thread);
    /// Whether there is nothing to learn from packets, and nothing but their kinds is asked for beside the time.
    bool asksKindsOnly() const { return isByKind && !learnsStart; }
    bool isOfKind(tagTCode code) const { return !asksKinds || kinds[absoluteKind(code)]; }
    bool isFact(const Given& packet) const;
    bool takesPlace(std::size_t file, const Where& place);
    bool isInTime(std::size_t file, std::uint64_t packetTick);
    bool takesAnyTime(std::size_t file, const Given& packet);
    void learn(std::size_t file, const Given& packet);
    bool runs(std::size_t file, std::uint32_t core);
    bool hasName(std::size_t file, const Given& packet);

    std::optional<Moment> fromMoment, toMoment;
    TraceSpan span;
    bool learnsStart = false; ///< of standard input
    bool isSettled = false;   ///< from and to are known
    std::uint64_t from = 0;
    std::uint64_t to = kNone;
    std::set<std::uint32_t> cores, threads;
    std::vector<std::string> threadPatterns;                               ///< of names
    bool learnsNames = false;                                              ///< of threads, from standard input
    std::map<std::pair<std::size_t, std::uint32_t>, bool> areThreadsTaken; ///< those that have been asked about
    std::bitset<256> kinds;                                                ///< none: all
    bool isByKind = false;                                                 ///< see asksKindsOnly()
    bool asksKinds = false;                                                ///< there are some
    bool leavesOutFacts = false;                                           ///< messages that tell of a recorded program
    CTraceNames names;
    std::vector<std::uint64_t> lastTicks;                                                ///< by trace
    std::map<std::pair<std::size_t, std::uint32_t>, CallStack<std::uint64_t>> processes; ///< entered, by their numbers
};

void Selection::State::begin(const std::vector<std::string>& files, bool withClock) {
    cores = numbersOf("--core", coreTexts);
    learnThreads(files);
    eachPart(kindTexts, [this](std::string_view pattern) {
        std::vector<std::string> known;
        bool isKnown = false;
        for (unsigned code = 0; code < kinds.size(); ++code) {
            if (!factsOf(tagTCode(code)).hasClass)
                continue;
            known.push_back(CTCodeInfo::TCodeToName(tagTCode(code)));
            if (matches(pattern, known.back())) {
                kinds.set(absoluteKind(tagTCode(code)));
                isKnown = true;
            }
        }
        if (!isKnown)
            throw Misuse("--kind", "'" + std::string(pattern) + "' is no kind of packet (qvx kinds lists them)" +
                                       didYouMean(pattern, known));
    });
    const auto momentOf = [](const char* option, const std::optional<std::string>& text) {
        const auto moment = text ? Moment::of(*text) : std::nullopt;
        if (text && !moment)
            throw Misuse(option, "'" + *text + "' is no time, as 12, +12, 1.5s, 10us, -3ms");
        return moment;
    };
    asksKinds = kinds.any();
    isByKind = !asksPlace() && namePatterns.empty() && !learnsNames;
    fromMoment = momentOf("--from", fromText);
    toMoment = momentOf("--to", toText);

    const auto any = [&](bool (Moment::*needs)() const) {
        return (fromMoment && ((*fromMoment).*needs)()) || (toMoment && ((*toMoment).*needs)());
    };
    const bool needsLast = any(&Moment::needsLast), needsFrequency = any(&Moment::needsFrequency);
    if (needsLast || needsFrequency || withClock || any(&Moment::needsFirst)) {
        for (const std::string& file : files) {
            if (file == "-") {
                if (files.size() > 1 && !fromMoment && !toMoment)
                    throw Misuse("FILES", "standard input cannot be read twice, but times are from the start of all "
                                          "traces; give all of them as files");
                if (needsLast || files.size() > 1)
                    throw Misuse(fromMoment && (fromMoment->needsLast() || !toMoment) ? "--from" : "--to",
                                 "standard input cannot be read twice, so there only ticks can be told, and for one "
                                 "trace times from its start");
                learnsStart = true;
                settle();
                return;
            }
            if (needsLast)
                Work::now().expect(file);
            TraceInput input(file);
            const std::uint64_t clockWithin = span.frequency != 0 ? 0
                                              : needsFrequency    ? kNone
                                              : withClock         ? TraceSpan::kClockWithin
                                                                  : 0;
            span.add(needsLast ? TraceSpan::of(input) : TraceSpan::beginningOf(input, clockWithin));
        }
        if (needsFrequency && span.frequency == 0)
            throw Failure(files.front(), "does not tell how many ticks are a second; tell times in ticks");
    }
    settle();
}

/// Sorts what --thread tells into numbers and names; where there are names, it asks the files for all that they give.
void Selection::State::learnThreads(const std::vector<std::string>& files) {
    eachPart(threadTexts, [this](std::string_view text) {
        if (const auto number = numberOf(text))
            threads.insert(*number);
        else
            threadPatterns.emplace_back(text);
    });
    for (std::size_t file = 0; !threadPatterns.empty() && file < files.size(); ++file) {
        if (files[file] == "-") {
            learnsNames = true;
            continue;
        }
        Work::now().expect(files[file]);
        TraceInput input(files[file]);
        while (input.advance()) {
            if (input.cursor().TraceCode() == Message)
                names.noteMessage(input.cursor().text(), static_cast<unsigned>(file));
        }
    }
}

void Selection::State::settle() {
    // Of traces without a tick nothing is selected by time.
    if (span.first == kUnknown64 && ((fromMoment && fromMoment->needsFirst()) || (toMoment && toMoment->needsFirst())))
        return;
    isSettled = true;
    from = fromMoment ? fromMoment->tickIn(span) : 0;
    to = toMoment ? toMoment->tickIn(span) : kNone;
    if (from > to)
        throw Misuse("--to", "what is selected would end before it begins");
}

void Selection::State::learnStart(const CTraceCursor& packet) {
    span.look(packet);
    const auto lacks = [this](const std::optional<Moment>& moment) {
        return moment && moment->needsFrequency() && span.frequency == 0;
    };
    if (span.first == kUnknown64)
        return;
    if (lacks(fromMoment) || lacks(toMoment))
        throw Failure("standard input", "does not begin with how many ticks are a second; tell times in ticks");
    learnsStart = span.frequency == 0; // which may still come, for who shows times
    settle();
}

bool Selection::State::takes(std::size_t file, const Given& packet) {
    if (learnsStart) // one trace, which is read with a cursor
        learnStart(*packet.cursor);
    learn(file, packet);
    return isInTime(file, packet.tick) && takesAnyTime(file, packet);
}

bool Selection::State::takesAnyTime(std::size_t file, const Given& packet) {
    if (!isOfKind(packet.code()) || isFact(packet))
        return false;
    if (asksPlace() && !takesPlace(file, packet.place()))
        return false;
    return namePatterns.empty() || hasName(file, packet);
}

/// Whether it is one of those that leavesOutFacts tells of.
bool Selection::State::isFact(const Given& packet) const {
    return leavesOutFacts && packet.code() == Message &&
           !RecordedFact(packet.cursor ? packet.cursor->text() : wholeTextOf(*packet.packet)).word().empty();
}

bool Selection::State::takesThread(std::size_t file, std::uint32_t thread) {
    if (threads.contains(thread) || threadPatterns.empty())
        return threads.contains(thread);
    const auto [known, isNew] = areThreadsTaken.try_emplace({file, thread});
    if (isNew) {
        const std::string& name = names.threadName(thread, static_cast<unsigned>(file));
        known->second = !name.empty() && std::ranges::any_of(threadPatterns, [&](const std::string& pattern) {
            return matches(pattern, name);
        });
    }
    return known->second;
}

bool Selection::State::takesPlace(std::size_t file, const Where& place) {
    return (cores.empty() || cores.contains(place.core)) && (!asksThread() || takesThread(file, place.thread)) &&
           (processTexts.empty() || runs(file, place.core));
}

bool Selection::State::isInTime(std::size_t file, std::uint64_t packetTick) {
    if (!fromMoment && !toMoment)
        return true;
    if (file >= lastTicks.size())
        lastTicks.resize(file + 1);
    std::uint64_t& tick = lastTicks[file];
    if (packetTick != kUnknown64)
        tick = packetTick;
    return isSettled && tick >= from && tick < to;
}

void Selection::State::learn(std::size_t file, const Given& packet) {
    const auto process = static_cast<unsigned>(file);
    if (learnsNames && packet.code() == Message) {
        packet.object([&](const CPacket& its) { names.note(its, process); });
        areThreadsTaken.clear();
    }
    if (namePatterns.empty() && processTexts.empty())
        return;
    const KindFacts& facts = factsOf(packet.code());
    if (facts.role == Role::Definition)
        packet.object([&](const CPacket& its) { names.note(its, process); });
    if (facts.entered != TextSort::Process || processTexts.empty())
        return;
    const auto id = packet.object([](const CPacket& its) { return subjectOf(its); });
    auto& entered = processes.try_emplace({file, packet.place().core}, kMostProcesses).first->second;
    if (facts.step == Step::Enter) {
        entered.enterLast([&] { return id->id; });
    } else {
        const auto count = entered.leave([&](std::uint64_t its) { return its == id->id; });
        for (std::size_t i = 0; i < count.value_or(0); ++i)
            entered.pop();
    }
}

bool Selection::State::runs(std::size_t file, std::uint32_t core) {
    const auto entered = processes.find({file, core});
    if (entered == processes.end() || entered->second.empty())
        return false;
    const std::uint64_t id = entered->second.back();
    const std::string& name =
        names.name(TextSort::Process, names.numberOf(TextSort::Process, id, static_cast<unsigned>(file)));
    bool isIt = false;
    eachPart(processTexts, [&](std::string_view text) {
        isIt = isIt || numberOf(text) == static_cast<std::uint32_t>(id) || (!name.empty() && matches(text, name));
    });
    return isIt;
}

bool Selection::State::hasName(std::size_t file, const Given& packet) {
    return packet.object([&](const CPacket& its) {
        std::string_view name;
        if (const auto subject = subjectOf(its); subject && subject->sort != TextSort::None)
            name = names.name(subject->sort, names.numberOf(subject->sort, subject->id, static_cast<unsigned>(file)));
        else
            name = wholeTextOf(its);
        return !name.empty() &&
               std::ranges::any_of(namePatterns, [&](const std::string& pattern) { return matches(pattern, name); });
    });
}

Selection::Selection() : m_state(std::make_unique<State>()) {}

Selection::Selection(const Selection& told) : Selection() {
    static_cast<Told&>(*m_state) = *told.m_state;
}

Selection::~Selection() = default;

void Selection::addTo(Verb& verb, unsigned parts) {
    State& its = *m_state;
    if (parts & From)
        verb.option("--from", its.fromText,
                    "Begin there: a tick, or a time from the start as 1.5s, from the end as -2ms", "TIME");
    if (parts & To)
        verb.option("--to", its.toText, "End before that", "TIME");
    if (parts & Place) {
        verb.option("--core", its.coreTexts, "Only what these cores do: 0,1", "N");
        verb.option("--thread", its.threadTexts, "Only what these threads do, by number or name", "N|GLOB");
        verb.option("--process", its.processTexts, "Only where these processes have been entered", "N|GLOB");
    }
    if (parts & Kind)
        verb.option("--kind", its.kindTexts, "Only these kinds of packet: Function*,Message", "GLOB");
    if (parts & Name)
        verb.option("--name", its.namePatterns, "Only what is about something of that name: 'read*'", "GLOB");
    if (parts & Limit)
        verb.option("--limit", its.limit, "Take the first N only");
    if (parts & Tail)
        verb.option("--tail", its.tail, "Take the last N only");
}

void Selection::endAt(const std::string& time) {
    m_state->toText = time;
}

void Selection::preferHappenings() {
    State& its = *m_state;
    for (unsigned code = 0; its.kindTexts.empty() && code < its.kinds.size(); ++code)
        its.kinds[code] = factsOf(tagTCode(code)).role == Role::Happening;
    its.leavesOutFacts = its.kindTexts.empty() && its.namePatterns.empty();
}

void Selection::begin(const std::vector<std::string>& files) {
    m_state->begin(files, false);
}

void Selection::beginWithClock(const std::vector<std::string>& files) {
    m_state->begin(files, true);
}

void Selection::beginWithTicks(const std::vector<std::string>& files) {
    m_state->begin(files, false);
    if (m_state->learnsStart)
        throw Misuse(m_state->fromMoment && m_state->fromMoment->needsFirst() ? "--from" : "--to",
                     "of standard input only ticks can be told");
}

const TraceSpan& Selection::span() const {
    return m_state->span;
}

bool Selection::takesAll() const {
    return !m_state->fromMoment && !m_state->toMoment && isOfTime();
}

bool Selection::isOfTime() const {
    const State& its = *m_state;
    return !its.asksPlace() && its.kinds.none() && its.namePatterns.empty();
}

bool Selection::isOfPackets() const {
    const State& its = *m_state;
    return !its.fromText && !its.toText && its.processTexts.empty() && its.threadPatterns.empty() &&
           its.namePatterns.empty() && !its.learnsStart;
}

bool Selection::isAsked() const {
    const State& its = *m_state;
    return its.fromText || its.toText || !its.coreTexts.empty() || !its.threadTexts.empty() ||
           !its.processTexts.empty() || !its.kindTexts.empty() || asksName();
}

bool Selection::asksName() const {
    return !m_state->namePatterns.empty();
}

std::uint64_t Selection::from() const {
    return m_state->from;
}

std::uint64_t Selection::to() const {
    return m_state->to;
}

bool Selection::takes(std::size_t file, const CTraceCursor& packet) {
    State& its = *m_state;
    if (!its.asksKindsOnly())
        return its.takes(file, {&packet, nullptr, packet.tick()});
    return ((!its.fromMoment && !its.toMoment) || its.isInTime(file, packet.tick())) &&
           its.isOfKind(packet.TraceCode()) && !its.isFact({&packet, nullptr, 0});
}

bool Selection::takesAnyTime(std::size_t file, const CTraceCursor& packet) {
    return m_state->takesAnyTime(file, {&packet, nullptr, kUnknown64});
}

bool Selection::takesRest(std::size_t file, const CPacket& packet) {
    State& its = *m_state;
    const State::Given given{nullptr, &packet, kUnknown64};
    if (its.asksKindsOnly())
        return its.isOfKind(packet.TraceCode()) && !its.isFact(given);
    its.learn(file, given);
    return its.takesAnyTime(file, given);
}

bool Selection::isBehind(std::size_t file) const {
    const State& its = *m_state;
    return its.isSettled && its.toMoment && file < its.lastTicks.size() && its.lastTicks[file] >= its.to;
}

bool Selection::isInTime(std::size_t file, const CTraceCursor& packet) {
    return m_state->isInTime(file, packet.tick());
}

void Selection::pass(std::size_t file, const CTraceCursor& packet) {
    m_state->learn(file, {&packet, nullptr, packet.tick()});
}

bool Selection::asksPlace() const {
    return m_state->asksPlace();
}

bool Selection::takesPlaceOf(std::size_t file, const CTraceCursor& packet) {
    State& its = *m_state;
    if (!its.asksPlace())
        return true;
    its.learn(file, {&packet, nullptr, packet.tick()});
    return factsOf(packet.TraceCode()).context == ContextSort::None || its.takesPlace(file, Where::of(packet));
}

bool Selection::takesName(std::string_view name) const {
    const auto& patterns = m_state->namePatterns;
    return patterns.empty() ||
           std::ranges::any_of(patterns, [&](const std::string& pattern) { return matches(pattern, name); });
}

std::uint64_t Selection::limit() const {
    return m_state->limit;
}

std::uint64_t Selection::tail() const {
    return m_state->tail;
}

} // namespace qvx
