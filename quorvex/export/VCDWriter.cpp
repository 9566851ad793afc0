#include "quorvex/export/VCDWriter.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/export/VCDIdentifier.h"
#include "quorvex/export/VCDValue.h"
#include "quorvex/format/Digits.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <compare>
#include <concepts>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

namespace Quorvex {

namespace {

/// Deeper nesting is counted, but it is not remembered what is entered there.
constexpr std::size_t kDeepest = 4096;
constexpr unsigned kLongestValue = CSignalMask::kMaxBits + 16;
/// Changes to depths up to that are kept as text.
constexpr std::size_t kCommonDepths = 64;
/// What a change to a number takes beside the code, at most; so much of a counter; and lines with a time.
constexpr unsigned kNumberRoom = 2 + 64;
constexpr unsigned kCounterRoom = 2 + 32;
constexpr std::string_view kOff = "$dumpoff\n", kOn = "$dumpon\n$end\n", kEnd = "$end\n";
constexpr unsigned kTimeRoom = 2 + kMostDigits + kOn.size();
/// Viewers end when they meet names of some kilobytes.
constexpr std::size_t kLongestName = 1000;

constexpr char kMissing[] = "leaves that are missing";
constexpr char kNoEnter[] = "leaves of what had not been entered";
constexpr char kDeep[] = "nesting deeper than 4096, shown by its depth only";

enum class Type : std::uint8_t { Bit, Vector, Real };
constexpr const char* kTypes[] = {"wire", "reg", "real"};
/// The values that are not known, and of what is known to be idle.
constexpr std::string_view kUnknown[] = {"x", "bx ", "rnan "};
constexpr std::string_view kIdle = "bz ";

/// Where variables stand in the file, in this order.
enum class Area : std::uint8_t { Cores, Threads, Counters, Events, Signals, States, Variables };
constexpr const char* kAreas[] = {"core_", "thread_", "counters", "events", "signals", "states", "variables"};
/// The scopes of details inside those of cores and threads.
constexpr const char* kDetails[] = {"processes", "functions"};

/// What a variable is declared by.
struct Declaration {
    Area area;
    std::uint32_t owner = 0; ///< core, thread or state machine; 0 elsewhere
    bool isDetail = false;   ///< stands in a scope of its own inside the owner's
    bool isWide = false;     ///< the values of a counter have any number of bytes
    CVCDWriter::Meaning meaning = CVCDWriter::Meaning::Value;
    Type type = Type::Vector;
    std::string_view label;         ///< a literal: the name, or what stands before the number of what has no name
    TextSort sort = TextSort::None; ///< of what gives the name
    std::uint64_t id = 0;           ///< likewise
    std::string suffix = {};        ///< behind the name

    auto operator<=>(const Declaration&) const = default;
};

/// What stands behind each change of a variable: its identifier, and the end of the line.
class Code {
public:
    static constexpr std::size_t kRoom = 8;

    Code() = default;
    explicit Code(std::uint32_t id) : m_size(CVCDIdentifier::write(m_text, kRoom, id)) { m_text[m_size++] = '\n'; }

    /// There is no such variable.
    bool isNone() const { return m_size == 0; }
    std::string_view identifier() const { return {m_text, m_size - 1U}; }
    /// The end of the text; kRoom characters are overwritten.
    char* put(char* to) const {
        std::memcpy(to, m_text, kRoom);
        return to + m_size;
    }

private:
    char m_text[kRoom] = {};
    unsigned m_size = 0;
};

/// A variable of the file. Variables stay where they are in memory.
struct Wire {
    Code code;
    Type type = Type::Vector;
    bool isTold = false;            ///< since the start, or the last gap
    unsigned width = 1;             ///< of its widest value so far
    CounterSort* counter = nullptr; ///< of whose type it is, if any
    std::uint64_t pulseEnd = 0;     ///< of an event, the end of its last pulse
};

/// Puts a change of a variable. It takes kNumberRoom characters beside those of the code.
char* putNumber(char* to, const Code& variable, std::uint64_t number) {
    *to++ = 'b';
    // Zeros in front may be left out.
    to = putBinary(to, number, static_cast<unsigned>(std::bit_width(number | 1)));
    *to++ = ' ';
    return variable.put(to);
}

/// The change of a variable to a number of 32 bits, for those that come again and again.
class NumberLine {
public:
    static constexpr std::size_t kRoom = 2 + 32 + Code::kRoom;

    NumberLine() = default;
    NumberLine(const Wire* variable, std::uint32_t number) {
        if (variable)
            m_size = static_cast<unsigned>(putNumber(m_text, variable->code, number) - m_text);
    }

    /// There is no such variable.
    bool isNone() const { return m_size == 0; }
    /// The end of the text; kRoom characters are overwritten.
    char* put(char* to) const {
        std::memcpy(to, m_text, kRoom);
        return to + m_size;
    }

private:
    char m_text[kRoom + 8] = {};
    unsigned m_size = 0;
};

/// By what a variable that packets change again and again is found.
struct VariableKey {
    Area area;
    std::uint8_t form = 0; ///< which of several of the same area and number
    std::uint64_t number = 0;
    std::uint64_t indices[2] = {};

    bool operator==(const VariableKey&) const = default;
    std::uint64_t hash() const {
        std::uint64_t hash = number << 16 | std::uint64_t(area) << 4 | form;
        for (const std::uint64_t index : indices)
            hash = (hash ^ index) * 0xD6E8FEB86659FD93;
        return hash;
    }
};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// A name of letters, digits and '_', which does not begin with a digit: what every reader takes.
std::string legal(std::string_view name) {
    std::string result(name.substr(0, kLongestName));
    for (char& c : result) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!isLetter && !isDigit(c))
            c = '_';
    }
    return !result.empty() && isDigit(result[0]) ? "_" + result : result;
}

/// A text within a comment of the file, where "$end" would end it.
std::string inComment(std::string_view text) {
    std::string result(text);
    std::ranges::replace_if(
        result, [](char c) { return c < ' ' || c > '~' || c == '$'; }, '?');
    return result;
}

/// Codes that readers take for something else: they expect none beyond '~', and "$end" is a word of the format.
bool isReserved(std::uint32_t id) {
    const Code code(id);
    return code.identifier()[0] == '$' || code.identifier().find('\x7f') != std::string_view::npos;
}

/// The states of the lines of a packet: of all that it tells, or of those that are given.
std::vector<tagVCDValueData> statesOf(const CSignal& signal, const CSignalMask* lines) {
    const CSignalMask& value = signal.SignalValue();
    const CSignalMask& valid = signal.SignalMask();
    std::vector<tagVCDValueData> states;
    for (unsigned i = 0; i < (lines ? lines->bits() : value.bits()); ++i) {
        if (lines && !lines->test(i))
            continue;
        const bool isValid = i < value.bits() && i < valid.bits() && valid.test(i);
        states.push_back(!isValid ? VCDUnknown : value.test(i) ? VCDOne : VCDZero);
    }
    return states;
}

using Unit = std::pair<std::uint64_t, const char*>;

/// The unit of times: one that a tick is a whole number of, where there is one.
const Unit& unitOf(std::uint64_t frequency) {
    static constexpr Unit kUnits[] = {
        {1, "1 s"}, {1'000, "1 ms"}, {1'000'000, "1 us"}, {1'000'000'000, "1 ns"}, {1'000'000'000'000, "1 ps"}};
    const auto* unit = std::ranges::find(kUnits, frequency, &Unit::first);
    return unit != std::end(kUnits) ? *unit : kUnits[frequency > 1'000'000'000 ? 4 : 3];
}

} // namespace

/// What runs where, and which values there are. Every change of it is a line of the body.
class CVCDWriter::Model {
public:
    explicit Model(CVCDWriter& writer) : m_writer(writer) {}

    bool show(const CPacket& packet, std::uint64_t time) {
        setTime(time);
        const bool isShown = visitKind(
            packet, [this](const auto& kind) requires requires { this->take(kind); } { take(kind); });
        const CCoreContext* place = isShown ? nullptr : placeOf(packet);
        if (place)
            runs(*place);
        return isShown;
    }

    /// What runs in a process ends.
    void endOf(unsigned process);
    void end(std::uint64_t time) {
        setTime(time);
        if (m_hasPulses)
            endPulses();
        m_writer.bodyEnds(changeAt(0));
    }
    void fixLine(std::string_view line, std::string& to) const;

    std::uint64_t time() const { return m_time; }
    /// The variables in the order of the file.
    const std::map<Declaration, Wire>& variables() const { return m_variables; }
    /// The type that a variable has by all its values so far.
    static Type typeOf(const Wire& variable) {
        return variable.counter && variable.counter->type() == CounterType::Double ? Type::Real : variable.type;
    }

private:
    struct Entered {
        std::uint32_t id = 0;
        NumberLine current = {}; ///< that it is the innermost
        Wire* variable = nullptr;
        unsigned count = 0;
    };
    using Stack = CallStack<Entered*>;
    /// What shows a stack, or one of several.
    struct View {
        Wire* current = nullptr;
        Wire* depth = nullptr;
        std::vector<NumberLine> depths = {}; ///< the changes to the first depths
        Directory<std::uint32_t, Entered> entered = {};
    };
    struct Core {
        std::optional<std::uint32_t> thread;
        Wire* threadVariable = nullptr;
        Wire* address = nullptr;
        Wire* target = nullptr;
        Wire* executed = nullptr;
        View processView;
        Stack processes{kDeepest};
        View exceptionView;
        Stack exceptions{kDeepest};
    };
    struct Thread {
        ThreadInputs inputs;
        std::optional<std::uint32_t> core;
        Wire* coreVariable = nullptr;
        View view;
        std::map<std::optional<std::uint32_t>, Stack> stacks; ///< by the process that is entered, if one is
        Stack* stack = nullptr;                               ///< that is shown
    };
    struct DefinedSignal {
        std::uint32_t id;
        CSignalMask lines;
        Wire* variable = nullptr;
    };

    void take(const CFunctionEnter& packet) {
        if (packet.TgtFuncIdIsValid())
            return showFunction(packet, packet.TgtFuncId(), true);
        runs(packet);
        m_writer.lose(kNoFunction);
    }
    void take(const CFunctionLeave& packet) { showFunction(packet, packet.TgtFuncId(), false); }
    void take(const CProcessEnter& packet) { showProcess(packet, packet.ProcId(), true); }
    void take(const CProcessLeave& packet) { showProcess(packet, packet.ProcId(), false); }
    void take(const CHWExceptionEnter& packet) { showException(packet, packet.ExceptionId(), true); }
    void take(const CHWExceptionLeave& packet) { showException(packet, packet.ExceptionId(), false); }
    void take(const CCounterValue& packet) { showCounter(packet, nullptr, 0); }
    void take(const CCounterValueDim1& packet) {
        const TCounterIdx_t indices[] = {packet.CntrIdx1()};
        showCounter(packet, indices, 1);
    }
    void take(const CCounterValueDim2& packet) {
        const TCounterIdx_t indices[] = {packet.CntrIdx1(), packet.CntrIdx2()};
        showCounter(packet, indices, 2);
    }
    void take(const CCounterValueDimN& packet) { showCounter(packet, packet.CntrIdx(), packet.CntrDim()); }
    void take(const CCounterValueVar& packet) {
        const TVarCounter_t& index = packet.CntrIdx();
        const TVarCounter_t& value = packet.CntrVal();
        runs(packet);
        Declaration declaration{.area = Area::Counters,
                                .isWide = true,
                                .label = "counter_",
                                .sort = TextSort::Counter,
                                .id = m_writer.numberOf(TextSort::Counter, packet.CntrId())};
        if (index.Length() > 0)
            declaration.suffix = "_" + decimalNumber(index.data(), index.Length());
        if (value.Length() > 0)
            changeBits(declare(std::move(declaration)), value.data(), value.Length());
        else
            m_writer.lose("counter values without a byte");
    }
    void take(const CEvent& packet) {
        runs(packet);
        const std::uint32_t number = m_writer.numberOf(TextSort::Event, packet.EvtId());
        const auto event = [number](Type type, const char* suffix) {
            return Declaration{.area = Area::Events,
                               .type = type,
                               .label = "event_",
                               .sort = TextSort::Event,
                               .id = number,
                               .suffix = suffix};
        };
        pulse(known({.area = Area::Events, .number = number}, [&] { return event(Type::Bit, ""); }));
        const unsigned bytes = packet.EvtData().Length();
        if (bytes > 0)
            changeBits(known({.area = Area::Events, .form = 1, .number = number},
                             [&] { return event(Type::Vector, "_data"); }),
                       packet.EvtData().data(), bytes);
    }
    // Packets of any kind would convert to those that are made of a context alone.
    void take(const std::same_as<CExecInsn> auto& packet) { showInstruction(packet, true); }
    void take(const std::same_as<CNonExecInsn> auto& packet) { showInstruction(packet, false); }
    void take(const CBranchBase& packet) {
        Core& core = showInstruction(packet, true);
        if (!core.target)
            core.target = declareOn(packet.HWCtx(), "branch_target", Meaning::Address);
        changeNumber(core.target, packet.BranchTargetAddress());
    }
    void take(const std::same_as<CTraceBroken> auto& packet) { showGap(packet); }
    void take(const CVariableRead& packet) { showVariable(packet); }
    void take(const CVariableWrite& packet) { showVariable(packet); }
    void take(const CSignalDefine& packet) {
        auto& defined = m_signals[{packet.HWCtx(), packet.Master()}];
        const std::uint32_t number = m_writer.numberOf(TextSort::Signal, packet.SignalId());
        std::erase_if(defined, [&](const DefinedSignal& one) { return one.id == number; });
        defined.push_back({number, packet.SignalMask()});
    }
    void take(const CSignalUndefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Signal, packet.SignalId());
        std::erase_if(m_signals[{packet.HWCtx(), packet.Master()}],
                      [&](const DefinedSignal& one) { return one.id == number; });
    }
    void take(const CSignal& packet);
    void take(const CTransitionDefine& packet) {
        m_targets[m_writer.numberOf(TextSort::Transition, packet.StateMachine(),
                                    packet.CTransitionDefinePayload::Transition())] = packet.TargetState();
    }
    void take(const CInitialState& packet) {
        showState(packet.StateMachine(), packet.StateMachineInstance(), packet.State());
    }
    void take(const CTransition& packet) {
        const auto target =
            m_targets.find(m_writer.numberOf(TextSort::Transition, packet.StateMachine(), packet.TransitionId()));
        showState(packet.StateMachine(), packet.StateMachineInstance(),
                  target == m_targets.end() ? std::nullopt : std::optional(target->second));
    }

    void showFunction(const CCoreContext& context, std::uint32_t id, bool isEntered);
    void showProcess(const CCoreContext& context, std::uint32_t id, bool isEntered);
    void showException(const CCoreContext& context, std::uint32_t id, bool isEntered);
    void showCounter(const CCounterValueBase& packet, const TCounterIdx_t* indices, unsigned dimensions);
    template <class Access> void showVariable(const Access& packet);
    void showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state);
    Core& showInstruction(const CCoreContext& context, bool isExecuted);
    void showGap(const CCoreContext& context);

    /// The packet tells that its thread runs on its core.
    struct Place {
        std::uint32_t coreNumber;
        std::uint32_t threadNumber;
        unsigned process;
        Core* core; ///< null: nowhere yet
        Thread* thread;
    };
    [[gnu::always_inline]] const Place& runs(const CCoreContext& context) {
        if (!m_place.core || m_place.coreNumber != context.HWCtx() || m_place.threadNumber != context.SWCtx() ||
            m_place.process != m_writer.process())
            goTo(context.HWCtx(), context.SWCtx());
        return m_place;
    }
    void goTo(std::uint32_t coreNumber, std::uint32_t threadNumber);
    Thread& thread(std::uint32_t number);
    Core& core(std::uint32_t number);
    /// A variable of a core that is there once something has been entered.
    Wire* declareOn(std::uint32_t core, std::string_view name, Meaning meaning) {
        return declare({.area = Area::Cores, .owner = core, .meaning = meaning, .label = name});
    }
    /// Enter and leave; `bit` declares the variable of one id.
    template <class Bit> void enter(View& view, Stack& stack, std::uint32_t id, Bit bit);
    void leave(View& view, Stack& stack, std::uint32_t id);
    void changeDepth(View& view, const Stack& stack) {
        const std::uint64_t depth = stack.depth();
        if (depth < view.depths.size())
            return change(view.depth, view.depths[static_cast<std::size_t>(depth)]);
        changeNumber(view.depth, depth);
        if (depth < kCommonDepths) {
            while (view.depths.size() <= depth)
                view.depths.emplace_back(view.depth, static_cast<std::uint32_t>(view.depths.size()));
        }
    }
    /// Shows what is innermost, and how many are entered.
    void showTop(View& view, const Stack& stack);
    /// Shows that a thread is on no core. Null for none.
    void stop(Thread* thread);
    /// Leaves all that is entered in a thread, at a known time or not.
    void forget(Thread& thread, bool isKnown);

    /// The bits of a variable; of values, those of the widest so far.
    static constexpr unsigned widthOf(Meaning meaning) {
        return meaning == Meaning::Value ? 1 : meaning == Meaning::Counter || meaning == Meaning::Address ? 64 : 32;
    }
    /// Null when there are no more variables.
    Wire* declare(Declaration&& declaration);
    /// The same without looking at the declaration, which `make` makes, where it is not new.
    template <class Make> Wire* known(const VariableKey& key, Make make) {
        Wire*& variable = m_known[key];
        if (!variable)
            variable = declare(make());
        return variable;
    }

    void setTime(std::uint64_t time) {
        if (time == m_time)
            return;
        if (m_hasPulses) [[unlikely]]
            endPulses();
        m_isTimeTold = m_isTimeTold && time == m_time;
        m_time = time;
    }
    void pulse(Wire* event);
    void endPulses();
    /// Where a change of the time that is shown is put: room for a value of that many characters, and a code.
    char* changeAt(std::size_t longestValue) {
        char* const to = m_writer.bodyRoom(kTimeRoom + longestValue + Code::kRoom);
        return m_isTimeTold ? to : putTime(to);
    }
    char* putTime(char* to);
    // Each writes a change of a variable; of null, none.
    [[gnu::always_inline]] void changeBit(Wire* variable, bool isSet) {
        if (!variable)
            return;
        variable->isTold = true;
        char* to = changeAt(1);
        *to++ = isSet ? '1' : '0';
        m_writer.bodyEnds(variable->code.put(to));
    }
    void changeNumber(Wire* variable, std::uint64_t number) {
        if (!variable)
            return;
        variable->isTold = true;
        m_writer.bodyEnds(putNumber(changeAt(kNumberRoom), variable->code, number));
    }
    [[gnu::always_inline]] void change(Wire* variable, const NumberLine& line) {
        if (line.isNone())
            return;
        variable->isTold = true;
        m_writer.bodyEnds(line.put(changeAt(NumberLine::kRoom)));
    }
    void changeCounter(Wire* variable, std::uint64_t value);
    void changeToIdle(Wire* variable);
    void changeToUnknown(Wire& variable);
    void changeBits(Wire* variable, const unsigned char* bytes, unsigned count);
    void change(Wire* variable, const IVCDValue& value);
    void putLine(std::string_view line) { m_writer.bodyEnds(std::ranges::copy(line, changeAt(line.size())).out); }

    CVCDWriter& m_writer;
    std::uint64_t m_time = 0;      ///< of the packet that is shown
    bool m_isTimeTold = false;     ///< it stands in the body
    std::uint64_t m_frequency = 0; ///< of the clock, when the next one was found
    std::uint64_t m_unitsPerSecond = unitOf(0).first;
    bool m_hasPulses = false;    ///< there are some in m_pulses
    bool m_isOff = false;        ///< the dump is, for a gap
    std::vector<Wire*> m_pulses; ///< events whose pulse ends with the next tick
    Place m_place = {};          ///< where the last packet was that tells it
    CVCDIdentifier m_identifiers;
    std::map<Declaration, Wire> m_variables;
    std::map<std::string, Wire*, std::less<>> m_counters; ///< variables whose type is found out, by code
    Directory<VariableKey, Wire*> m_known;                ///< those that are looked up often
    Directory<std::uint32_t, Thread> m_threads;
    Directory<std::uint32_t, Core> m_cores;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
};

Wire* CVCDWriter::Model::declare(Declaration&& declaration) {
    const auto [at, isNew] = m_variables.try_emplace(std::move(declaration));
    if (!isNew)
        return &at->second;
    std::uint32_t id = m_identifiers.GetNextId();
    while (CVCDIdentifier::IsValid(id) && isReserved(id))
        id = m_identifiers.GetNextId();
    if (!CVCDIdentifier::IsValid(id)) {
        logError("VCDWriter: Cannot create new VCD Identifier!");
        m_writer.lose("variables without an identifier");
        m_variables.erase(at);
        return nullptr;
    }
    Wire& variable = at->second;
    variable = {.code = Code(id), .type = at->first.type, .width = widthOf(at->first.meaning)};
    if (at->first.meaning == Meaning::Counter) {
        variable.counter = &m_writer.counterSort(static_cast<std::uint32_t>(at->first.id));
        m_counters.emplace(variable.code.identifier(), &variable);
    }
    return &variable;
}

void CVCDWriter::Model::pulse(Wire* event) {
    if (!event)
        return;
    if (event->pulseEnd > 0 && event->pulseEnd >= m_time)
        m_writer.lose("events at once or a tick after another, shown as one pulse");
    if (event->pulseEnd == m_time + 1)
        return;
    event->pulseEnd = m_time + 1;
    m_pulses.push_back(event);
    m_hasPulses = true;
    changeBit(event, true);
}

void CVCDWriter::Model::endPulses() {
    ++m_time;
    m_isTimeTold = false;
    for (Wire* event : m_pulses) {
        if (event->isTold) // no gap has ended it
            changeBit(event, false);
    }
    m_pulses.clear();
    m_hasPulses = false;
}

void CVCDWriter::Model::showGap(const CCoreContext& context) {
    const bool isWhole = m_writer.isOneProcess();
    if (m_isOff)
        return;
    if (isWhole)
        putLine(kOff);
    for (auto& [number, thread] : m_threads) {
        if (isWhole || thread.inputs.isLast(m_writer.process()))
            forget(thread, false);
    }
    const auto isGone = [&](const Declaration& variable) {
        if (isWhole)
            return true;
        const Thread* const thread = variable.area == Area::Threads ? m_threads.find(variable.owner) : nullptr;
        return (thread && thread->inputs.isLast(m_writer.process())) ||
               (variable.area == Area::Cores && variable.owner == context.HWCtx());
    };
    for (auto& [declaration, variable] : m_variables) {
        if (variable.isTold && isGone(declaration))
            changeToUnknown(variable);
    }
    for (auto& [number, core] : m_cores) {
        if (!isWhole && number != context.HWCtx())
            continue;
        for (View* view : {&core.processView, &core.exceptionView}) {
            for (auto& [id, entered] : view->entered)
                entered.count = 0;
        }
        core.processes = Stack(kDeepest);
        core.exceptions = Stack(kDeepest);
        core.thread.reset();
    }
    m_place.core = nullptr;
    if (!isWhole)
        return;
    putLine(kEnd);
    m_isOff = true;
    m_isTimeTold = false;
}

char* CVCDWriter::Model::putTime(char* to) {
    if (m_frequency != m_writer.frequency()) {
        m_frequency = m_writer.frequency();
        m_unitsPerSecond = unitOf(m_frequency).first;
    }
    m_isTimeTold = true;
    *to++ = '#';
    to = m_writer.putTime(to, m_time, m_unitsPerSecond);
    *to++ = '\n';
    if (m_isOff) [[unlikely]] {
        m_isOff = false;
        to += kOn.copy(to, kOn.size());
    }
    return to;
}

void CVCDWriter::Model::changeToUnknown(Wire& variable) {
    const std::string_view unknown = kUnknown[unsigned(typeOf(variable))];
    variable.isTold = false;
    m_writer.bodyEnds(variable.code.put(std::ranges::copy(unknown, changeAt(unknown.size())).out));
}

void CVCDWriter::Model::changeToIdle(Wire* variable) {
    if (!variable)
        return;
    variable->isTold = true;
    m_writer.bodyEnds(variable->code.put(std::ranges::copy(kIdle, changeAt(kIdle.size())).out));
}

void CVCDWriter::Model::changeBits(Wire* variable, const unsigned char* bytes, unsigned count) {
    if (!variable)
        return;
    variable->isTold = true;
    variable->width = std::max(variable->width, 8 * count);
    char* to = changeAt(2 + std::size_t{8} * count);
    *to++ = 'b';
    while (count > 0)
        to = putBinary(to, bytes[--count], 8);
    *to++ = ' ';
    m_writer.bodyEnds(variable->code.put(to));
}

void CVCDWriter::Model::change(Wire* variable, const IVCDValue& value) {
    if (!variable)
        return;
    variable->isTold = true;
    char* const to = changeAt(kLongestValue);
    CBufferHelper<char> text(to, kLongestValue);
    const unsigned size = value.write(text);
    // The format allows letters of both cases; some readers know the small ones only.
    std::transform(to, to + size, to, [](char c) { return static_cast<char>(c >= 'A' ? c | 0x20 : c); });
    m_writer.bodyEnds(variable->code.put(to + size));
}

void CVCDWriter::Model::changeCounter(Wire* variable, std::uint64_t value) {
    if (!variable)
        return;
    if (variable->counter->note(value))
        m_writer.fixBodySoFar();
    if (variable->counter->type() != CounterType::Double)
        return changeNumber(variable, value);
    variable->isTold = true;
    char* to = changeAt(kCounterRoom);
    *to++ = 'r';
    to = putCounter(to, value, CounterType::Double);
    *to++ = ' ';
    m_writer.bodyEnds(variable->code.put(to));
}

void CVCDWriter::Model::fixLine(std::string_view line, std::string& to) const {
    const std::size_t blank = line[0] == 'b' || line[0] == 'r' ? line.rfind(' ') : std::string_view::npos;
    const auto found = blank == std::string_view::npos
                           ? m_counters.end()
                           : m_counters.find(line.substr(blank + 1, line.size() - blank - 2));
    const bool isReal = line[0] == 'r';
    if (found == m_counters.end() || isReal == (typeOf(*found->second) == Type::Real)) {
        to += line;
        return;
    }
    const std::string_view text = line.substr(1, blank - 1);
    char room[kNumberRoom + Code::kRoom];
    char* end = room;
    if (text == "x" || text == "nan") {
        end = std::ranges::copy(kUnknown[unsigned(isReal ? Type::Vector : Type::Real)], room).out;
        end = found->second->code.put(end);
    } else if (isReal) {
        end = putNumber(room, found->second->code, counterOf(text));
    } else {
        std::uint64_t value = 0;
        std::from_chars(text.data(), text.data() + text.size(), value, 2);
        *end++ = 'r';
        end = putCounter(end, value, CounterType::Double);
        *end++ = ' ';
        end = found->second->code.put(end);
    }
    to.append(room, end);
}

CVCDWriter::Model::Thread& CVCDWriter::Model::thread(std::uint32_t number) {
    return m_threads.findOrMake(number, [this, number] {
        const auto add = [&](std::string_view name, Meaning meaning) {
            return declare({.area = Area::Threads, .owner = number, .meaning = meaning, .label = name});
        };
        Thread thread;
        thread.view.current = add("function", Meaning::Function);
        thread.view.depth = add("depth", Meaning::Depth);
        thread.coreVariable = add("core", Meaning::Core);
        return thread;
    });
}

CVCDWriter::Model::Core& CVCDWriter::Model::core(std::uint32_t number) {
    return m_cores.findOrMake(number, [this, number] {
        Core core;
        core.threadVariable = declareOn(number, "thread", Meaning::Thread);
        return core;
    });
}

void CVCDWriter::Model::stop(Thread* thread) {
    if (!thread || !thread->core)
        return;
    Core& from = core(*thread->core);
    if (from.thread && m_threads.find(*from.thread) == thread) {
        from.thread.reset();
        changeToIdle(from.threadVariable);
    }
    thread->core.reset();
    changeToIdle(thread->coreVariable);
}

void CVCDWriter::Model::goTo(std::uint32_t coreNumber, std::uint32_t threadNumber) {
    Core& where = core(coreNumber);
    Thread& what = thread(threadNumber);
    what.inputs.tell(m_writer.process());
    if (what.core != coreNumber)
        stop(&what);
    if (where.thread != threadNumber) {
        if (Thread* const before = where.thread ? m_threads.find(*where.thread) : nullptr) {
            before->core.reset();
            changeToIdle(before->coreVariable);
        }
        where.thread = threadNumber;
        changeNumber(where.threadVariable, threadNumber);
    }
    if (what.core != coreNumber) {
        what.core = coreNumber;
        changeNumber(what.coreVariable, coreNumber);
    }
    std::optional<std::uint32_t> process;
    if (!where.processes.empty())
        process = where.processes.back()->id;
    Stack& stack = what.stacks.try_emplace(process, kDeepest).first->second;
    if (what.stack && what.stack != &stack)
        showTop(what.view, stack);
    what.stack = &stack;
    m_place = {coreNumber, threadNumber, m_writer.process(), &where, &what};
}

void CVCDWriter::Model::forget(Thread& thread, bool isKnown) {
    bool wasIn = false;
    for (auto& [id, entered] : thread.view.entered) {
        wasIn |= entered.count > 0;
        if (isKnown && entered.count > 0)
            changeBit(entered.variable, false);
        entered.count = 0;
    }
    if (isKnown) {
        stop(&thread);
        if (wasIn) {
            changeToIdle(thread.view.current);
            changeNumber(thread.view.depth, 0);
        }
    }
    thread.core.reset();
    thread.stacks.clear();
    thread.stack = nullptr;
    m_place.core = nullptr;
}

void CVCDWriter::Model::endOf(unsigned process) {
    for (auto& [number, thread] : m_threads) {
        if (thread.inputs.end(process) && thread.stack)
            forget(thread, true);
    }
}

void CVCDWriter::Model::showTop(View& view, const Stack& stack) {
    if (stack.empty())
        changeToIdle(view.current);
    else
        change(view.current, stack.back()->current);
    changeDepth(view, stack);
}

CVCDWriter::Model::Core& CVCDWriter::Model::showInstruction(const CCoreContext& context, bool isExecuted) {
    Core& core = *runs(context).core;
    if (!core.address)
        core.address = declareOn(context.HWCtx(), "address", Meaning::Address);
    if (!isExecuted && !core.executed)
        core.executed =
            declare({.area = Area::Cores, .owner = context.HWCtx(), .type = Type::Bit, .label = "executed"});
    changeBit(core.executed, isExecuted);
    if (context.CurrAddr() == kUnknown64 && core.address)
        changeToUnknown(*core.address);
    else
        changeNumber(core.address, context.CurrAddr());
    return core;
}

template <class Bit> void CVCDWriter::Model::enter(View& view, Stack& stack, std::uint32_t id, Bit bit) {
    const auto find = [&] {
        return &view.entered.findOrMake(id, [&] { return Entered{.id = id, .current = NumberLine(view.current, id)}; });
    };
    if (stack.enter(find)) {
        Entered& entered = *stack.back();
        if (!entered.variable)
            entered.variable = bit();
        if (entered.count++ == 0)
            changeBit(entered.variable, true);
        change(view.current, entered.current);
    } else {
        m_writer.lose(kDeep);
    }
    changeDepth(view, stack);
}

void CVCDWriter::Model::leave(View& view, Stack& stack, std::uint32_t id) {
    const auto left = stack.leave([id](const Entered* entered) { return entered->id == id; });
    if (!left)
        return m_writer.lose(kNoEnter);
    for (std::size_t count = *left; count > 0; --count) {
        // What was entered behind it has been left too, though nothing tells when.
        if (count > 1)
            m_writer.lose(kMissing);
        Entered& entered = *stack.back();
        if (--entered.count == 0)
            changeBit(entered.variable, false);
        stack.pop();
    }
    if (*left > 0 && !stack.empty())
        change(view.current, stack.back()->current);
    else if (*left > 0)
        changeToIdle(view.current);
    changeDepth(view, stack);
}

void CVCDWriter::Model::showFunction(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Thread& thread = *runs(context).thread;
    const std::uint32_t number = m_writer.numberOf(TextSort::Function, id);
    if (!isEntered)
        return leave(thread.view, *thread.stack, number);
    enter(thread.view, *thread.stack, number, [&] {
        return declare({.area = Area::Threads,
                        .owner = context.SWCtx(),
                        .isDetail = true,
                        .type = Type::Bit,
                        .label = "function_",
                        .sort = TextSort::Function,
                        .id = number});
    });
}

void CVCDWriter::Model::showProcess(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Core& core = *runs(context).core;
    View& view = core.processView;
    const std::uint32_t number = m_writer.numberOf(TextSort::Process, id);
    if (!view.current) {
        view.current = declareOn(context.HWCtx(), "process", Meaning::Process);
        view.depth = declareOn(context.HWCtx(), "process_depth", Meaning::Depth);
    }
    if (isEntered) {
        enter(view, core.processes, number, [&] {
            return declare({.area = Area::Cores,
                            .owner = context.HWCtx(),
                            .isDetail = true,
                            .type = Type::Bit,
                            .label = "process_",
                            .sort = TextSort::Process,
                            .id = number});
        });
    } else {
        leave(view, core.processes, number);
    }
    m_place.core = nullptr; // the thread is in another process
    runs(context);
}

void CVCDWriter::Model::showException(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Core& core = *runs(context).core;
    View& view = core.exceptionView;
    if (!view.current) {
        view.current = declareOn(context.HWCtx(), "exception", Meaning::Exception);
        view.depth = declareOn(context.HWCtx(), "exception_depth", Meaning::Depth);
    }
    if (isEntered)
        enter(view, core.exceptions, id, [] { return nullptr; });
    else
        leave(view, core.exceptions, id);
}

void CVCDWriter::Model::showCounter(const CCounterValueBase& packet, const TCounterIdx_t* indices,
                                    unsigned dimensions) {
    runs(packet);
    const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
    const auto declaration = [&] {
        std::string suffix;
        for (unsigned i = 0; i < dimensions; ++i)
            suffix += "_" + std::to_string(indices[i].u64);
        return Declaration{.area = Area::Counters,
                           .meaning = Meaning::Counter,
                           .label = "counter_",
                           .sort = TextSort::Counter,
                           .id = number,
                           .suffix = std::move(suffix)};
    };
    VariableKey key{.area = Area::Counters, .form = static_cast<std::uint8_t>(dimensions), .number = number};
    const bool isCommon = dimensions <= std::size(key.indices);
    for (unsigned i = 0; isCommon && i < dimensions; ++i)
        key.indices[i] = indices[i].u64;
    changeCounter(isCommon ? known(key, declaration) : declare(declaration()), packet.CntrVal().u64);
}

template <class Access> void CVCDWriter::Model::showVariable(const Access& packet) {
    runs(packet);
    if (packet.VarLen() == 0)
        return m_writer.lose("accesses to variables without a value");
    const std::uint32_t number = m_writer.numberOf(TextSort::Variable, packet.VarId());
    const auto declaration = [&] {
        return Declaration{.area = Area::Variables, .label = "variable_", .sort = TextSort::Variable, .id = number};
    };
    changeBits(known({.area = Area::Variables, .number = number}, declaration), packet.VarData().data(),
               packet.VarLen());
}

void CVCDWriter::Model::take(const CSignal& packet) {
    const auto show = [this](Wire* variable, const std::vector<tagVCDValueData>& states) {
        const auto width = static_cast<unsigned>(states.size());
        if (variable)
            variable->width = std::max(variable->width, width);
        change(variable, CVCDVectorValue(states.data(), width));
    };
    const auto defined = m_signals.find({packet.HWCtx(), packet.Master()});
    if (defined == m_signals.end() || defined->second.empty()) {
        const std::vector<tagVCDValueData> all = statesOf(packet, nullptr);
        if (!all.empty())
            show(declare({.area = Area::Signals,
                          .label = "lines_",
                          .suffix = std::to_string(packet.HWCtx()) + "_" + std::to_string(packet.Master())}),
                 all);
        return;
    }
    for (DefinedSignal& one : defined->second) {
        const std::vector<tagVCDValueData> lines = statesOf(packet, &one.lines);
        if (lines.empty())
            continue;
        if (!one.variable)
            one.variable = declare({.area = Area::Signals, .label = "signal_", .sort = TextSort::Signal, .id = one.id});
        show(one.variable, lines);
    }
}

void CVCDWriter::Model::showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state) {
    const std::uint64_t owner = m_writer.numberOf(TextSort::StateMachine, machine);
    const std::uint64_t number = m_writer.numberOf(TextSort::StateMachineInstance, machine, instance);
    Wire* const variable = known({.area = Area::States, .number = number, .indices = {owner}}, [&] {
        return Declaration{.area = Area::States,
                           .owner = static_cast<std::uint32_t>(owner),
                           .meaning = Meaning::State,
                           .label = "instance_",
                           .sort = TextSort::StateMachineInstance,
                           .id = number};
    });
    if (state) {
        changeNumber(variable, m_writer.numberOf(TextSort::State, machine, *state) & 0xFFFFFFFF);
    } else {
        m_writer.lose("state transitions that are not defined");
        if (variable)
            changeToUnknown(*variable);
    }
}

/// Writes what stands before the body.
class CVCDWriter::Header {
public:
    Header(CVCDWriter& writer, const char* unit) : m_writer(writer) {
        const std::uint64_t start = writer.startTick();
        const std::uint64_t frequency = writer.frequency();
        m_text = "$version\n\tQuorvex " QUORVEX_VERSION "\n$end\n$comment\n\t";
        m_text += start == kUnknown64 ? "No packet tells a tick." : "Time 0 is tick " + std::to_string(start) + ".";
        m_text += frequency == 0 ? " The clock is not known: a tick counts as 1 ns."
                                 : " The clock has " + std::to_string(frequency) + " ticks a second.";
        m_text += " Events are pulses of one tick.";
        m_text += "\n$end\n$timescale " + std::string(unit) + " $end\n$scope module trace $end\n";
    }

    bool add(const Declaration& declaration, const Wire& variable) {
        goTo(declaration);
        const std::string name = nameOf(declaration);
        const std::string code(variable.code.identifier());
        const Type type = Model::typeOf(variable);
        const bool hasRange = type == Type::Vector && variable.width > 1;
        const std::string range = hasRange ? "[" + std::to_string(variable.width - 1) + ":0]" : "";
        m_text += std::string("$var ") + kTypes[unsigned(type)] + " " + std::to_string(variable.width) + " " + code +
                  " " + name + (hasRange ? " " : "") + range + " $end\n";
        const std::string scope = m_detail.empty() ? m_scope : m_scope + "." + m_detail;
        CVCDWriter::Variable shown{.path = "trace." + scope + "." + name + range,
                                   .width = variable.width,
                                   .meaning = declaration.meaning,
                                   .stateMachine = declaration.owner,
                                   .isDetail = declaration.isDetail,
                                   .counterType = variable.counter ? variable.counter->type() : CounterType::Unsigned,
                                   .unit = {}};
        if (declaration.area == Area::Counters)
            shown.unit = m_writer.counterUnit(static_cast<std::uint32_t>(declaration.id));
        if (!shown.unit.empty())
            m_text += "$comment " + name + " is in " + inComment(shown.unit) + " $end\n";
        m_writer.m_shown.push_back(std::move(shown));
        m_initial.append(initialOf(declaration, type)).append(code).append("\n");
        return flush();
    }

    bool finish() {
        leave(m_detail);
        leave(m_scope);
        m_text += "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n" + m_initial + "$end\n";
        return flush();
    }

private:
    /// What a variable is before it has been told: nothing is entered as far as is known, all else is unknown.
    static std::string_view initialOf(const Declaration& variable, Type type) {
        if (variable.meaning == Meaning::Depth)
            return "b0 ";
        const bool isEntered = type == Type::Bit && (variable.isDetail || variable.area == Area::Events);
        return isEntered ? "0" : kUnknown[unsigned(type)];
    }

    bool flush() {
        const bool isWritten = m_writer.writeOut(m_text);
        m_text.clear();
        return isWritten;
    }

    /// Opens and closes scopes until the variable may follow.
    void goTo(const Declaration& variable) {
        const bool isOwned = variable.area == Area::Cores || variable.area == Area::Threads;
        std::string area = kAreas[unsigned(variable.area)] + (isOwned ? std::to_string(variable.owner) : "");
        if (const std::string title = m_writer.names().threadTitle(variable.owner);
            variable.area == Area::Threads && !title.empty())
            area += "_" + legal(title);
        if (m_scope != area || (!m_detail.empty() && !variable.isDetail))
            leave(m_detail);
        if (m_scope != area) {
            leave(m_scope);
            enter(m_scope, area);
        }
        if (variable.isDetail && m_detail.empty())
            enter(m_detail, kDetails[unsigned(variable.area)]);
    }
    void enter(std::string& opened, const std::string& name) {
        m_text += "$scope module " + name + " $end\n";
        opened = name;
        m_used.clear();
    }
    void leave(std::string& opened) {
        if (!opened.empty())
            m_text += "$upscope $end\n";
        opened.clear();
        m_used.clear();
    }

    /// The name of a number, made legal; empty when it has none.
    std::string given(TextSort sort, std::uint64_t number) const {
        const std::string& name = m_writer.names().name(sort, number);
        if (name.size() > kLongestName)
            m_writer.lose("names longer than 1000 characters, cut");
        return legal(name);
    }
    /// Its identifier, without that of its state machine.
    std::string idText(TextSort sort, std::uint64_t number) const {
        return std::to_string(m_writer.names().idOf(sort, number) & 0xFFFFFFFF);
    }

    /// A name that the scope does not have yet.
    std::string nameOf(const Declaration& variable) {
        std::string name =
            variable.sort == TextSort::None ? std::string(variable.label) : given(variable.sort, variable.id);
        if (variable.sort == TextSort::StateMachineInstance) {
            const std::string machine = given(TextSort::StateMachine, variable.owner);
            name = (machine.empty() ? "machine_" + idText(TextSort::StateMachine, variable.owner) : machine) + "_" +
                   (name.empty() ? idText(variable.sort, variable.id) : name);
        } else if (name.empty()) {
            name = std::string(variable.label) + idText(variable.sort, variable.id);
        }
        name += variable.suffix;
        if (!m_used.insert(name).second) {
            name += "_" + idText(variable.sort, variable.id);
            for (unsigned number = 2; !m_used.insert(name).second; ++number)
                name += "_" + std::to_string(number);
        }
        return name;
    }

    CVCDWriter& m_writer;
    std::string m_text;
    std::string m_initial;
    std::string m_scope; ///< that is open, and the one of details inside it
    std::string m_detail;
    std::set<std::string> m_used; ///< names in the innermost of them
};

CVCDWriter::CVCDWriter(std::ostream& out, ViewerOptions options)
    : CViewerWriter(out,
                    {TextSort::Function, TextSort::Process, TextSort::Variable, TextSort::Counter,
                     TextSort::CounterUnit, TextSort::Event, TextSort::Signal, TextSort::StateMachine,
                     TextSort::StateMachineInstance, TextSort::State},
                    std::move(options)),
      m_model(platform::makeOwned<Model>(*this)) {}

CVCDWriter::~CVCDWriter() = default;

bool CVCDWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CVCDWriter::endOf(unsigned process, std::uint64_t) {
    m_model->endOf(process);
}

void CVCDWriter::end(std::uint64_t time) {
    m_model->end(time);
}

void CVCDWriter::fixLine(std::string_view line, std::string& to) {
    m_model->fixLine(line, to);
}

bool CVCDWriter::writeFile() {
    const auto& [unitsPerSecond, name] = unitOf(frequency());
    Header header(*this, name);
    for (const auto& [declaration, variable] : m_model->variables()) {
        if (!header.add(declaration, variable))
            return false;
    }
    m_duration = unitsOf(m_model->time(), unitsPerSecond);
    return header.finish() && copyBody('#', unitsPerSecond);
}

} // namespace Quorvex
