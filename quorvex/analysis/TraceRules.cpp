#include "quorvex/analysis/TraceRules.h"

#include "quorvex/analysis/CallWalk.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/TraceRule.h"
#include "quorvex/format/Digits.h"
#include "quorvex/format/Glob.h"

#include <array>
#include <bit>
#include <deque>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace Quorvex {

namespace {

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
/// So many events of a rule can wait for another one; of further ones, the first and the last are known.
constexpr std::size_t kMostWaiting = 0x10000;

/// Where and when something happened.
struct Place {
    std::uint32_t file = ~0U;
    std::uint64_t offset = kUnknown64;
    std::uint64_t tick = kUnknown64;
    std::uint32_t thread = ~0U;
    std::uint32_t core = ~0U;
};

std::uint64_t ticksBetween(std::uint64_t from, std::uint64_t to) {
    return from < to && to != kUnknown64 ? to - from : 0;
}

std::string timesText(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " time" : " times");
}

/// A rule and what has been found of it.
struct Rule : TraceRule {
    /// Events that wait for another one.
    struct Waiting {
        Place place; ///< of the first one
        std::uint64_t last;
        std::uint64_t count;
        std::string name;
    };

    RuleResult result{};
    std::uint64_t times = 0;
    Place last{}; ///< of what must come before others
    bool hasLast = false;
    std::deque<Waiting> waiting{};
    std::set<std::uint32_t> withoutClock{}; ///< traces for which that has been told
};

/// A packet of a trace that is walked through.
struct SeenPacket {
    const CTraceCursor& cursor;
    std::uint64_t offset() const { return cursor.offset(); }
    std::uint64_t tick() const { return cursor.tick(); }
    tagTCode TraceCode() const { return cursor.TraceCode(); }
    template <class Kind> auto as() const { return cursor.as<Kind>(); }
    auto core() const { return cursor.contextOf<CCoreContext>(); }
};
PacketPointer objectOf(const SeenPacket& packet) {
    return PacketPointer(packet.cursor.packet());
}
/// One that has been made, and is absolute.
struct MadePacket {
    const CPacket& packet;
    std::uint64_t itsOffset;
    std::uint64_t itsTick;
    std::uint64_t offset() const { return itsOffset; }
    std::uint64_t tick() const { return itsTick; }
    tagTCode TraceCode() const { return packet.TraceCode(); }
    template <class Kind> const Kind* as() const { return packetAs<Kind>(packet); }
    std::optional<CCoreContext::Values> core() const {
        const auto* context = contextOf<CCoreContext>(packet);
        return context ? std::optional(context->values()) : std::nullopt;
    }
};
const CPacket* objectOf(const MadePacket& packet) {
    return &packet.packet;
}

/// Something that rules can be about, and those that are.
struct Known {
    std::string name{};
    std::vector<Rule*> rules{};  ///< about it
    std::vector<Rule*> others{}; ///< that it must have another one before it, or behind
    bool isOverflow = false;
    std::uint64_t names = kMost; ///< by which all that is so
    CounterSort values{};        ///< of a counter
};

/// A call that is open.
struct OpenCall {
    Known* function;
    Place place;
};

struct Nothing {};

constexpr RuleNumberSort sortOf(CounterType type) {
    return type == CounterType::Double   ? RuleNumberSort::Real
           : type == CounterType::Signed ? RuleNumberSort::Signed
                                         : RuleNumberSort::Unsigned;
}

/// What a counter's value, told in so many bytes, is as a number of a sort in 64 bits.
std::uint64_t bitsOf(std::uint64_t value, std::size_t size, RuleNumberSort sort) {
    if (sort == RuleNumberSort::Real && size == sizeof(float))
        return std::bit_cast<std::uint64_t>(double{std::bit_cast<float>(static_cast<std::uint32_t>(value))});
    if (sort == RuleNumberSort::Signed && size < sizeof value) {
        const std::size_t unused = 8 * (sizeof value - size);
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(value << unused) >> unused);
    }
    return value;
}

} // namespace

struct TraceRules::State {
    /// One trace while it is read.
    struct File : CallWalk<File, OpenCall, Nothing> {
        File(State& all, std::uint32_t its) : CallWalk(all.calls, {}, all.names, its), state(all), number(its) {}

        OpenCall enter(const Thread&, std::uint32_t id) {
            return {&state.knownAs(*this, TextSort::Function, id), state.place};
        }
        void leave(const OpenCall&) {}
        void count(const OpenCall& call, const CallTime& time) { state.lookAtCall(*this, call, time); }

        std::uint64_t depth() const { return lastThread().calls.depth(); }
        std::uint64_t frequency() const { return clock().frequency(); }

        State& state;
        std::uint32_t number;
    };
    struct Key {
        std::uint32_t file;
        TextSort sort;
        std::uint32_t id;
        std::uint64_t hash() const { return (std::uint64_t{file} << 32 | id) ^ std::uint64_t(sort) << 58; }
        bool operator==(const Key&) const = default;
    };
    /// How an event that waits for another one gets to know of it.
    enum class News : std::uint8_t { TimePasses, IsFound, TraceEnds };

    explicit State(std::uint64_t most) : mostFindings(most) {}

    std::vector<Rule*>& about(RuleAbout what) { return byAbout[std::size_t(what)]; }
    void addRule(TraceRule&& told, const std::string& source);
    void define(const CPacket& packet, std::uint32_t file);
    template <class Packet> void look(File& file, const Packet& packet);
    void lookAtGap(const File& file, RuleAbout about, std::uint64_t key);
    void lookAtCall(const File& file, const OpenCall& call, const CallTime& time);
    void lookAtEnter(File& file, std::uint32_t id);
    void lookAtEvent(File& file, std::uint32_t id);
    void lookAtValue(File& file, const CPacket& packet);
    void end(File& file, const TraceReport& report);
    void happens(Rule& rule, const std::string& name);
    void settle(const File* file, Rule& rule, News news);
    Known& knownAs(const File& file, TextSort sort, std::uint32_t id);
    std::optional<std::uint64_t> ticksOf(const File& file, Rule& rule, const TimeLength& time);
    void breaks(Rule& rule, const Place& at, std::string text, RuleValue value = {}, std::uint64_t times = 1);

    std::uint64_t mostFindings;
    std::deque<Rule> rules{};
    std::array<std::vector<Rule*>, std::size_t(RuleAbout::Loss) + 1> byAbout{};
    CTraceNames names{};
    CallSummary calls{};
    Directory<Key, Known> known{};
    Directory<std::uint64_t, Place> lastIn[2]{};          ///< threads, by trace and number, and on cores
    std::set<std::uint64_t> overflows{};                  ///< numbers of events that tell of them
    std::uint64_t definitions = 0;                        ///< so far
    std::uint64_t first = kUnknown64;                     ///< tick of all traces
    std::map<std::uint32_t, std::uint64_t> frequencies{}; ///< by trace
    Place place{};                                        ///< of the packet that is looked at
};

namespace {

/// In nanoseconds; ticks where no clock is known.
std::uint64_t timeValue(std::uint64_t ticks, std::uint64_t frequency) {
    return TimeBase::nanosecondsOf(ticks, frequency);
}

std::string timeText(std::uint64_t ticks, std::uint64_t frequency) {
    return frequency > 0 ? durationText(timeValue(ticks, frequency)) : std::to_string(ticks) + " ticks";
}

RuleValue valueOf(const RuleNumber& number) {
    switch (number.sort) {
    case RuleNumberSort::Signed:
        return std::bit_cast<std::int64_t>(number.bits);
    case RuleNumberSort::Real:
        return std::bit_cast<double>(number.bits);
    case RuleNumberSort::Unsigned:
        break;
    }
    return number.bits;
}

} // namespace

void TraceRules::State::addRule(TraceRule&& told, const std::string& source) {
    Rule& rule = rules.emplace_back();
    static_cast<TraceRule&>(rule) = std::move(told);
    rule.result.source = source;
    rule.result.line = rule.line;
    rule.result.rule = rule.text;
    about(rule.about).push_back(&rule);
}

void TraceRules::State::define(const CPacket& packet, std::uint32_t file) {
    ++definitions;
    if (const auto* event = packetAs<CEventDefine>(packet); event && event->EvtType() == Overflow)
        overflows.insert(names.numberOf(TextSort::Event, event->EvtId(), file));
}

Known& TraceRules::State::knownAs(const File& file, TextSort sort, std::uint32_t id) {
    Known& its = known[{file.number, sort, id}];
    if (its.names == definitions)
        return its;
    its.names = definitions;
    const std::uint64_t number = names.numberOf(sort, id, file.number);
    its.name = names.nameOrId(sort, number);
    its.isOverflow = sort == TextSort::Event && overflows.contains(number);
    its.rules.clear();
    its.others.clear();
    const RuleAbout what = sort == TextSort::Function ? RuleAbout::Function
                           : sort == TextSort::Event  ? RuleAbout::Event
                                                      : RuleAbout::Counter;
    for (Rule* rule : about(what)) {
        if (matches(rule->name, its.name))
            its.rules.push_back(rule);
        if ((rule->demand == RuleDemand::Before || rule->demand == RuleDemand::After) && matches(rule->other, its.name))
            its.others.push_back(rule);
    }
    return its;
}

void TraceRules::State::breaks(Rule& rule, const Place& at, std::string text, RuleValue value, std::uint64_t times) {
    rule.result.broken += times;
    if (rule.result.findings.size() < mostFindings)
        rule.result.findings.push_back(
            {at.file, at.offset, at.tick, kUnknown64, at.thread, at.core, value, std::move(text)});
}

/// A time of a rule in ticks of that trace. Where its clock is not known, the rule is broken.
std::optional<std::uint64_t> TraceRules::State::ticksOf(const File& file, Rule& rule, const TimeLength& time) {
    if (time.isTicks() || file.frequency() > 0)
        return time.ticks(file.frequency());
    if (rule.withoutClock.insert(file.number).second)
        breaks(rule, {file.number}, "the trace does not tell how many ticks are a second");
    return std::nullopt;
}

void TraceRules::State::happens(Rule& rule, const std::string& name) {
    if (rule.demand != RuleDemand::Times)
        return;
    ++rule.result.checked;
    ++rule.times;
    if (rule.most && rule.times > rule.most->bits)
        breaks(rule, place, name + (rule.most->bits > 0 ? " happens " + timesText(rule.times) : " happens"),
               rule.times);
}

template <class Packet> void TraceRules::State::look(File& file, const Packet& packet) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& facts = factsOf(code);
    place = {file.number, packet.offset(), packet.tick()};
    if (facts.role != Role::Definition && facts.sync == ContextSort::None) // as TraceSpan tells it
        first = std::min(first, place.tick);
    if (facts.role != Role::Happening) {
        file.look(packet);
        if (facts.role == Role::Definition)
            define(*objectOf(packet), file.number);
        return;
    }
    if (const auto core = packet.core()) {
        place.thread = core->swCtx;
        place.core = core->hwCtx;
        if (!isUnknown(FieldMeaning::Context, place.thread))
            lookAtGap(file, RuleAbout::ThreadGap, std::uint64_t{file.number} << 32 | place.thread);
        if (!isUnknown(FieldMeaning::Context, place.core))
            lookAtGap(file, RuleAbout::CoreGap, place.core);
    }
    if (facts.step != Step::None && facts.entered == TextSort::Function) {
        if (about(RuleAbout::Function).empty() && about(RuleAbout::Depth).empty())
            return;
        file.look(packet);
        if (const auto enter = packet.template as<CFunctionEnter>())
            lookAtEnter(file, enter->TgtFuncId());
    } else if (code == Event) {
        lookAtEvent(file, packet.template as<CEvent>()->EvtId());
    } else if (code == Message) {
        const auto& object = objectOf(packet);
        names.note(*object, file.number); // it may name a thread
        const std::string text(wholeTextOf(*object));
        for (Rule* rule : about(RuleAbout::Message)) {
            if (matches(rule->name, text))
                happens(*rule, text);
        }
    } else if (facts.isCounterValue && !about(RuleAbout::Counter).empty()) {
        lookAtValue(file, *objectOf(packet));
    }
}

void TraceRules::State::lookAtGap(const File& file, RuleAbout what, std::uint64_t key) {
    if (about(what).empty() || place.tick == kUnknown64)
        return;
    const bool isThread = what == RuleAbout::ThreadGap;
    Place& last = lastIn[!isThread][key];
    const std::uint64_t ticks = last.tick == kUnknown64 ? 0 : ticksBetween(last.tick, place.tick);
    for (Rule* rule : about(what)) {
        const auto limit = last.tick == kUnknown64 ? std::nullopt : ticksOf(file, *rule, *rule->longest);
        rule->result.checked += limit.has_value();
        if (limit && ticks > *limit)
            breaks(
                *rule, place,
                "nothing " +
                    (isThread ? "in thread " + std::to_string(place.thread) : "on core " + std::to_string(place.core)) +
                    " for " + timeText(ticks, file.frequency()),
                timeValue(ticks, file.frequency()));
    }
    last = place;
}

void TraceRules::State::lookAtCall(const File& file, const OpenCall& call, const CallTime& time) {
    for (Rule* rule : call.function->rules) {
        if (rule->demand != RuleDemand::Length || (rule->shortest && !time.isLeft))
            continue;
        const auto limit = ticksOf(file, *rule, rule->longest ? *rule->longest : *rule->shortest);
        if (!limit)
            continue;
        ++rule->result.checked;
        if (rule->longest ? time.ticks > *limit : time.ticks < *limit)
            breaks(*rule, call.place,
                   call.function->name + " takes " + timeText(time.ticks, file.frequency()) +
                       (time.isLeft ? "" : ", and its end is missing"),
                   timeValue(time.ticks, file.frequency()));
    }
}

void TraceRules::State::lookAtEnter(File& file, std::uint32_t id) {
    for (Rule* rule : about(RuleAbout::Depth)) {
        ++rule->result.checked;
        if (file.depth() == rule->most->bits + 1)
            breaks(*rule, place,
                   knownAs(file, TextSort::Function, id).name + " makes " + std::to_string(file.depth()) +
                       " functions in each other",
                   file.depth());
    }
    if (about(RuleAbout::Function).empty())
        return;
    const Known& function = knownAs(file, TextSort::Function, id);
    for (Rule* rule : function.rules)
        happens(*rule, function.name);
}

void TraceRules::State::lookAtEvent(File& file, std::uint32_t id) {
    const Known& event = knownAs(file, TextSort::Event, id);
    if (event.isOverflow) {
        for (const RuleAbout what : {RuleAbout::Damage, RuleAbout::Loss}) {
            for (Rule* rule : about(what))
                breaks(*rule, place, "the target tells of an overflow, by event " + event.name);
        }
    }
    for (Rule* rule : event.rules) {
        happens(*rule, event.name);
        if (rule->demand == RuleDemand::After)
            settle(&file, *rule, News::IsFound);
    }
    for (Rule* rule : event.others) {
        ++rule->result.checked;
        if (rule->demand == RuleDemand::After) {
            settle(&file, *rule, News::TimePasses);
            if (rule->waiting.size() < kMostWaiting)
                rule->waiting.push_back({place, place.tick, 1, event.name});
            else {
                rule->waiting.back().last = place.tick;
                ++rule->waiting.back().count;
            }
        } else if (!rule->hasLast) {
            breaks(*rule, place, event.name + " has no " + rule->name + " before it");
        } else if (rule->longest) {
            const auto limit = ticksOf(file, *rule, *rule->longest);
            const std::uint64_t ticks = ticksBetween(rule->last.tick, place.tick);
            if (limit && ticks > *limit)
                breaks(*rule, place,
                       event.name + " has the last " + rule->name + " " + timeText(ticks, file.frequency()) +
                           " before it",
                       timeValue(ticks, file.frequency()));
        }
    }
    for (Rule* rule : event.rules) {
        rule->last = place;
        rule->hasLast = true;
    }
}

/// Those that wait have found what they wait for where things are, or nothing, or it may be too late for them.
void TraceRules::State::settle(const File* file, Rule& rule, News news) {
    const auto told = file && rule.longest ? ticksOf(*file, rule, *rule.longest) : std::nullopt;
    const std::uint64_t limit = told.value_or(UINT64_MAX);
    while (!rule.waiting.empty()) {
        const Rule::Waiting& one = rule.waiting.front();
        const std::uint64_t ticks = ticksBetween(one.place.tick, place.tick);
        const bool isLate = ticks > limit;
        if (isLate || news == News::TraceEnds) {
            const bool areAllLate = !isLate || ticksBetween(one.last, place.tick) > limit;
            breaks(rule, one.place,
                   one.name + " has no " + rule.name + " behind it" +
                       (isLate ? " for " + timeText(ticks, file->frequency()) : ""),
                   isLate ? RuleValue(timeValue(ticks, file->frequency())) : RuleValue(), areAllLate ? one.count : 1);
        } else if (news == News::TimePasses) {
            return;
        }
        rule.waiting.pop_front();
    }
}

void TraceRules::State::lookAtValue(File& file, const CPacket& packet) {
    std::uint32_t id = 0;
    std::optional<std::uint64_t> value;
    std::size_t size = 0;
    eachNumber(packet, [&](const NumberField& field) {
        const std::string_view name = field.name;
        if (name == "CntrId") {
            id = static_cast<std::uint32_t>(field.value);
        } else if (name == "Value" && field.isKnown) {
            value = field.value;
            size = field.bytes.empty() ? sizeof field.value : field.bytes.size();
        }
    });
    if (!value)
        return;
    const bool isWord = size == sizeof *value; // a number of any type
    Known& counter = knownAs(file, TextSort::Counter, id);
    if (isWord)
        counter.values.note(*value);
    for (Rule* rule : counter.rules) {
        ++rule->result.checked;
        const RuleNumberSort told = (rule->least ? rule->least : rule->most)->sort;
        const RuleNumberSort sort = isWord ? sortOf(counter.values.type()) : told;
        const RuleNumber number{sort, bitsOf(*value, size, sort)};
        const auto isAtMost = [common = std::max(told, sort)](const RuleNumber& one, const RuleNumber& other) {
            return one.as(common) <= other.as(common);
        };
        const bool isWithin =
            (!rule->least || isAtMost(*rule->least, number)) && (!rule->most || isAtMost(number, *rule->most));
        if (!isWithin)
            breaks(*rule, place, counter.name + " is " + number.text(), valueOf(number));
    }
}

void TraceRules::State::end(File& file, const TraceReport& report) {
    file.finish();
    frequencies[file.number] = file.frequency();
    const auto count = [](std::uint64_t number, const char* what) {
        return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
    };
    for (const RuleAbout what : {RuleAbout::Damage, RuleAbout::Loss}) {
        for (Rule* rule : about(what)) {
            ++rule->result.checked;
            if (report.damage.places > 0)
                breaks(*rule, {file.number, report.damage.first},
                       count(report.damage.places, "damaged place") + ", " + count(report.damage.bytes, "byte") +
                           " stepped over",
                       report.damage.places, report.damage.places);
            if (report.wrongTicks > 0)
                breaks(*rule, {file.number, report.firstWrongTick},
                       count(report.wrongTicks, "packet") + " with a tick that cannot be", report.wrongTicks,
                       report.wrongTicks);
            if (report.lacking > 0)
                breaks(*rule, {file.number}, "frames have " + count(report.lacking, "byte") + " less than they tell",
                       report.lacking);
            if (what == RuleAbout::Loss && report.end == TraceEnd::Empty)
                breaks(*rule, {file.number}, "the trace is empty");
            if (what == RuleAbout::Loss && report.end >= TraceEnd::Missing)
                breaks(*rule, {file.number, report.endOffset}, "the end of the trace is missing");
        }
    }
}

TraceRules::TraceRules(std::uint64_t mostFindings) : m_state(platform::makeOwned<State>(mostFindings)) {}

TraceRules::~TraceRules() = default;

std::optional<RuleFault> TraceRules::add(std::string_view text, const std::string& source) {
    try {
        for (TraceRule& rule : parseRules(text))
            m_state->addRule(std::move(rule), source);
    } catch (RuleFault& fault) {
        return std::move(fault);
    }
    return std::nullopt;
}

std::size_t TraceRules::size() const {
    return m_state->rules.size();
}

bool TraceRules::needOrder() const {
    return std::ranges::any_of(m_state->rules, [](const Rule& rule) {
        return rule.demand == RuleDemand::Before || rule.demand == RuleDemand::After ||
               rule.about == RuleAbout::CoreGap;
    });
}

void TraceRules::learn(TraceFile& trace, std::uint32_t file) {
    while (trace.advance()) {
        const tagTCode code = trace.cursor().TraceCode();
        if (code != Message && factsOf(code).role != Role::Definition)
            continue;
        const PacketPointer packet = objectOf(trace.cursor());
        m_state->names.note(*packet, file);
        m_state->define(*packet, file);
    }
}

void TraceRules::read(TraceFile& trace, std::uint32_t file) {
    State::File reading(*m_state, file);
    try {
        while (trace.advance())
            m_state->look(reading, SeenPacket{trace.cursor()});
    } catch (...) {
        m_state->end(reading, trace.report());
        throw;
    }
    m_state->end(reading, trace.report());
}

void TraceRules::read(Merged& traces) {
    std::deque<State::File> files;
    for (std::uint32_t file = 0; file < traces.size(); ++file)
        files.emplace_back(*m_state, file);
    while (const PacketPointer packet = traces.next())
        m_state->look(files[traces.file()], MadePacket{*packet, traces.offset(), traces.tick()});
    for (State::File& file : files)
        m_state->end(file, traces.report(file.number));
}

const CTraceNames& TraceRules::names() const {
    return m_state->names;
}

std::vector<RuleResult> TraceRules::results() {
    std::vector<RuleResult> results;
    for (Rule& rule : m_state->rules) {
        m_state->settle(nullptr, rule, State::News::TraceEnds);
        if (rule.demand == RuleDemand::Times && rule.least && rule.times < rule.least->bits)
            m_state->breaks(rule, {}, "this happens " + timesText(rule.times), rule.times,
                            rule.least->bits - rule.times);
        for (RuleFinding& finding : rule.result.findings) {
            const std::uint64_t frequency = m_state->frequencies[finding.file];
            if (frequency > 0 && finding.tick != kUnknown64 && finding.tick >= m_state->first)
                finding.nanoseconds = TimeBase::nanosecondsOf(finding.tick - m_state->first, frequency);
        }
        results.push_back(rule.result);
    }
    return results;
}

} // namespace Quorvex
