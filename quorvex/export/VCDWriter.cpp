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
#include <compare>
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
/// What a change to a number takes beside the code, at most, and a line with a time.
constexpr unsigned kNumberRoom = 2 + 64;
constexpr unsigned kTimeRoom = 2 + kMostDigits;

enum class Type : std::uint8_t { Bit, Vector, Integer, Real, Event };
constexpr const char* kTypes[] = {"wire", "reg", "integer", "real", "event"};
/// What a variable is before it has been told.
constexpr const char* kInitial[] = {"0", "bX ", "b0 ", "r0 ", ""};

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
    Type type = Type::Vector;
    unsigned width = 32;
    std::string_view label;         ///< a literal: the name, or what stands before the number of what has no name
    TextSort sort = TextSort::None; ///< of what gives the name
    std::uint64_t id = 0;           ///< likewise
    std::string suffix = {};        ///< behind the name
    CVCDWriter::Meaning meaning = CVCDWriter::Meaning::Value;

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

/// Puts a change of a variable, which there is. It takes kNumberRoom characters beside those of the code.
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
    NumberLine(const Code& variable, std::uint32_t number) {
        if (!variable.isNone())
            m_size = static_cast<unsigned>(putNumber(m_text, variable, number) - m_text);
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
    unsigned width = 0;
    std::uint64_t number = 0;
    std::uint64_t indices[2] = {};

    bool operator==(const VariableKey&) const = default;
    std::uint64_t hash() const {
        std::uint64_t hash = number << 24 | std::uint64_t{width} << 8 | std::uint64_t(area) << 4 | form;
        for (const std::uint64_t index : indices)
            hash = (hash ^ index) * 0xD6E8FEB86659FD93;
        return hash;
    }
};

/// Whether the bits look like a double rather than an integer: no small number, and neither huge nor tiny as a double.
bool looksLikeDouble(const TCounter_t& value) {
    const auto exponent = static_cast<int>((value.u64 >> 52) & 0x7FF) - 1023;
    return exponent > -70 && exponent < 70;
}

std::string legal(std::string_view name) {
    std::string result(name);
    for (char& c : result) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!isLetter && !(c >= '0' && c <= '9') && c != '_' && c != '$')
            c = '_';
    }
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

    void end(std::uint64_t time) {
        setTime(time);
        m_writer.bodyEnds(changeAt(0));
    }

    std::uint64_t time() const { return m_time; }
    /// The variables in the order of the file, with their identifiers.
    const std::map<Declaration, Code>& variables() const { return m_variables; }

private:
    struct Entered {
        std::uint32_t id = 0;
        NumberLine current = {}; ///< that it is the innermost
        Code variable = {};
        unsigned count = 0;
    };
    struct Stack {
        CallStack<Entered*> entered{kDeepest};
        Directory<std::uint32_t, Entered> bits;
        Code current;
        Code depth;
    };
    struct Core {
        std::optional<std::uint32_t> thread;
        Code threadVariable;
        Stack processes;
        Stack exceptions;
    };
    struct Thread {
        std::optional<std::uint32_t> core;
        Code coreVariable;
        Stack functions;
    };
    struct DefinedSignal {
        std::uint32_t id;
        CSignalMask lines;
        Code variable = {};
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
        const TVarCounter_t& bytes = packet.CntrIdx();
        std::string index;
        for (unsigned i = bytes.Length(); i-- > 0;)
            index += (index.empty() ? "_" : "") + std::to_string(bytes.data()[i]) + (i > 0 ? "_" : "");
        const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
        const TVarCounter_t& value = packet.CntrVal();
        if (value.Length() > 0)
            changeBits(declare({.area = Area::Counters,
                                .width = 8U * value.Length(),
                                .label = "counter_",
                                .sort = TextSort::Counter,
                                .id = number,
                                .suffix = std::move(index)}),
                       value.data(), value.Length());
    }
    void take(const CEvent& packet) {
        runs(packet);
        const std::uint32_t number = m_writer.numberOf(TextSort::Event, packet.EvtId());
        const auto event = [number](Type type, unsigned width, const char* suffix) {
            return Declaration{.area = Area::Events,
                               .type = type,
                               .width = width,
                               .label = "event_",
                               .sort = TextSort::Event,
                               .id = number,
                               .suffix = suffix};
        };
        changeBit(known({.area = Area::Events, .number = number}, [&] { return event(Type::Event, 1, ""); }), true);
        const unsigned width = 8 * packet.EvtData().Length();
        if (width > 0)
            changeBits(known({.area = Area::Events, .width = width, .number = number},
                             [&] { return event(Type::Vector, width, "_data"); }),
                       packet.EvtData().data(), packet.EvtData().Length());
    }
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

    /// The packet tells that its thread runs on its core.
    struct Place {
        std::uint32_t coreNumber;
        std::uint32_t threadNumber;
        Core* core; ///< null: nowhere yet
        Thread* thread;
    };
    const Place& runs(const CCoreContext& context) {
        if (!m_place.core || m_place.coreNumber != context.HWCtx() || m_place.threadNumber != context.SWCtx())
            goTo(context.HWCtx(), context.SWCtx());
        return m_place;
    }
    void goTo(std::uint32_t coreNumber, std::uint32_t threadNumber);
    Thread& thread(std::uint32_t number);
    Core& core(std::uint32_t number);
    /// A variable of a core that is there once something has been entered.
    Code declareOn(std::uint32_t core, Type type, std::string_view name, Meaning meaning) {
        return declare({.area = Area::Cores, .owner = core, .type = type, .label = name, .meaning = meaning});
    }
    /// Enter and leave; `bit` declares the variable of one id.
    template <class Bit> void enter(Stack& stack, std::uint32_t id, Bit bit);
    void leave(Stack& stack, std::uint32_t id);

    Code declare(Declaration&& declaration);
    /// The same without looking at the declaration, which `make` makes, where it is not new.
    template <class Make> const Code& known(const VariableKey& key, Make make) {
        Code& code = m_known[key];
        if (code.isNone())
            code = declare(make());
        return code;
    }

    void setTime(std::uint64_t time) {
        m_isTimeTold = m_isTimeTold && time == m_time;
        m_time = time;
    }
    /// Where a change of the time that is shown is put: room for a value of that many characters, and a code.
    char* changeAt(std::size_t longestValue) {
        char* const to = m_writer.bodyRoom(kTimeRoom + longestValue + Code::kRoom);
        return m_isTimeTold ? to : putTime(to);
    }
    char* putTime(char* to);
    // Each writes a change of a variable.
    void changeBit(const Code& variable, bool isSet) {
        if (variable.isNone())
            return;
        char* to = changeAt(1);
        *to++ = isSet ? '1' : '0';
        m_writer.bodyEnds(variable.put(to));
    }
    void changeNumber(const Code& variable, std::uint64_t number) {
        if (variable.isNone())
            return;
        m_writer.bodyEnds(putNumber(changeAt(kNumberRoom), variable, number));
    }
    void change(const NumberLine& line) {
        if (!line.isNone())
            m_writer.bodyEnds(line.put(changeAt(NumberLine::kRoom)));
    }
    void changeToUnknown(const Code& variable);
    void changeBits(const Code& variable, const unsigned char* bytes, unsigned count);
    void change(const Code& variable, const IVCDValue& value);

    CVCDWriter& m_writer;
    std::uint64_t m_time = 0;      ///< of the packet that is shown
    bool m_isTimeTold = false;     ///< it stands in the body
    std::uint64_t m_frequency = 0; ///< of the clock, when the next one was found
    std::uint64_t m_unitsPerSecond = unitOf(0).first;
    Place m_place = {}; ///< where the last packet was that tells it
    CVCDIdentifier m_identifiers;
    std::map<Declaration, Code> m_variables;
    Directory<VariableKey, Code> m_known; ///< those that are looked up often
    Directory<std::uint32_t, Thread> m_threads;
    Directory<std::uint32_t, Core> m_cores;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
};

Code CVCDWriter::Model::declare(Declaration&& declaration) {
    const auto [at, isNew] = m_variables.try_emplace(std::move(declaration));
    if (!isNew)
        return at->second;
    std::uint32_t id = m_identifiers.GetNextId();
    while (CVCDIdentifier::IsValid(id) && isReserved(id))
        id = m_identifiers.GetNextId();
    if (!CVCDIdentifier::IsValid(id)) {
        logError("VCDWriter: Cannot create new VCD Identifier!");
        m_writer.lose("variables without an identifier");
        m_variables.erase(at);
        return Code();
    }
    return at->second = Code(id);
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
    return to;
}

void CVCDWriter::Model::changeToUnknown(const Code& variable) {
    if (variable.isNone())
        return;
    m_writer.bodyEnds(variable.put(std::copy_n("bX ", 3, changeAt(3))));
}

void CVCDWriter::Model::changeBits(const Code& variable, const unsigned char* bytes, unsigned count) {
    if (variable.isNone())
        return;
    char* to = changeAt(2 + std::size_t{8} * count);
    *to++ = 'b';
    while (count > 0)
        to = putBinary(to, bytes[--count], 8);
    *to++ = ' ';
    m_writer.bodyEnds(variable.put(to));
}

void CVCDWriter::Model::change(const Code& variable, const IVCDValue& value) {
    if (variable.isNone())
        return;
    char* const to = changeAt(kLongestValue);
    CBufferHelper<char> text(to, kLongestValue);
    const unsigned size = value.write(text);
    // The format allows letters of both cases; some readers know the small ones only.
    *to = static_cast<char>(*to == 'B' ? 'b' : *to == 'R' ? 'r' : *to);
    m_writer.bodyEnds(variable.put(to + size));
}

CVCDWriter::Model::Thread& CVCDWriter::Model::thread(std::uint32_t number) {
    return m_threads.findOrMake(number, [this, number] {
        const auto add = [&](Type type, std::string_view name, Meaning meaning) {
            return declare({.area = Area::Threads, .owner = number, .type = type, .label = name, .meaning = meaning});
        };
        Thread thread;
        thread.functions.current = add(Type::Vector, "function", Meaning::Function);
        thread.functions.depth = add(Type::Integer, "depth", Meaning::Depth);
        thread.coreVariable = add(Type::Vector, "core", Meaning::Core);
        return thread;
    });
}

CVCDWriter::Model::Core& CVCDWriter::Model::core(std::uint32_t number) {
    return m_cores.findOrMake(number, [this, number] {
        Core core;
        core.threadVariable = declareOn(number, Type::Vector, "thread", Meaning::Thread);
        return core;
    });
}

void CVCDWriter::Model::goTo(std::uint32_t coreNumber, std::uint32_t threadNumber) {
    Core& where = core(coreNumber);
    Thread& what = thread(threadNumber);
    if (where.thread != threadNumber) {
        where.thread = threadNumber;
        changeNumber(where.threadVariable, threadNumber);
    }
    if (what.core != coreNumber) {
        what.core = coreNumber;
        changeNumber(what.coreVariable, coreNumber);
    }
    m_place = {coreNumber, threadNumber, &where, &what};
}

template <class Bit> void CVCDWriter::Model::enter(Stack& stack, std::uint32_t id, Bit bit) {
    const auto find = [&] {
        return &stack.bits.findOrMake(id, [&] { return Entered{.id = id, .current = NumberLine(stack.current, id)}; });
    };
    if (stack.entered.enter(find)) {
        Entered& entered = *stack.entered.back();
        if (entered.variable.isNone())
            entered.variable = bit();
        if (entered.count++ == 0)
            changeBit(entered.variable, true);
        change(entered.current);
    } else {
        m_writer.lose("nesting deeper than 4096, shown by its depth only");
    }
    changeNumber(stack.depth, stack.entered.depth());
}

void CVCDWriter::Model::leave(Stack& stack, std::uint32_t id) {
    const auto left = stack.entered.leave([id](const Entered* entered) { return entered->id == id; });
    if (!left)
        return m_writer.lose("leaves of what had not been entered");
    for (std::size_t count = *left; count > 0; --count) {
        // What was entered behind it has been left too, though nothing tells when.
        if (count > 1)
            m_writer.lose("leaves that are missing");
        Entered& entered = *stack.entered.back();
        if (--entered.count == 0)
            changeBit(entered.variable, false);
        stack.entered.pop();
    }
    if (*left > 0 && stack.entered.empty())
        changeToUnknown(stack.current);
    else if (*left > 0)
        change(stack.entered.back()->current);
    changeNumber(stack.depth, stack.entered.depth());
}

void CVCDWriter::Model::showFunction(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Stack& stack = runs(context).thread->functions;
    const std::uint32_t number = m_writer.numberOf(TextSort::Function, id);
    if (!isEntered)
        return leave(stack, number);
    enter(stack, number, [&] {
        return declare({.area = Area::Threads,
                        .owner = context.SWCtx(),
                        .isDetail = true,
                        .type = Type::Bit,
                        .width = 1,
                        .label = "function_",
                        .sort = TextSort::Function,
                        .id = number});
    });
}

void CVCDWriter::Model::showProcess(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Stack& stack = runs(context).core->processes;
    const std::uint32_t number = m_writer.numberOf(TextSort::Process, id);
    if (stack.current.isNone()) {
        stack.current = declareOn(context.HWCtx(), Type::Vector, "process", Meaning::Process);
        stack.depth = declareOn(context.HWCtx(), Type::Integer, "process_depth", Meaning::Depth);
    }
    if (!isEntered)
        return leave(stack, number);
    enter(stack, number, [&] {
        return declare({.area = Area::Cores,
                        .owner = context.HWCtx(),
                        .isDetail = true,
                        .type = Type::Bit,
                        .width = 1,
                        .label = "process_",
                        .sort = TextSort::Process,
                        .id = number});
    });
}

void CVCDWriter::Model::showException(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Stack& stack = runs(context).core->exceptions;
    if (stack.current.isNone()) {
        stack.current = declareOn(context.HWCtx(), Type::Vector, "exception", Meaning::Exception);
        stack.depth = declareOn(context.HWCtx(), Type::Integer, "exception_depth", Meaning::Depth);
    }
    if (isEntered)
        enter(stack, id, [] { return Code(); });
    else
        leave(stack, id);
}

void CVCDWriter::Model::showCounter(const CCounterValueBase& packet, const TCounterIdx_t* indices,
                                    unsigned dimensions) {
    const TCounter_t& value = packet.CntrVal();
    const bool isReal = looksLikeDouble(value);
    const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
    const auto declaration = [&] {
        std::string suffix;
        for (unsigned i = 0; i < dimensions; ++i)
            suffix += "_" + std::to_string(indices[i].u64);
        return Declaration{.area = Area::Counters,
                           .type = isReal ? Type::Real : Type::Vector,
                           .width = 64,
                           .label = "counter_",
                           .sort = TextSort::Counter,
                           .id = number,
                           .suffix = std::move(suffix)};
    };
    VariableKey key{
        .area = Area::Counters, .form = static_cast<std::uint8_t>(2 * dimensions + isReal), .number = number};
    const bool isCommon = dimensions <= std::size(key.indices);
    for (unsigned i = 0; isCommon && i < dimensions; ++i)
        key.indices[i] = indices[i].u64;
    const Code variable = isCommon ? known(key, declaration) : declare(declaration());
    if (isReal)
        change(variable, CVCDRealValue(value.dbl));
    else
        changeNumber(variable, value.u64);
}

template <class Access> void CVCDWriter::Model::showVariable(const Access& packet) {
    runs(packet);
    const std::uint32_t number = m_writer.numberOf(TextSort::Variable, packet.VarId());
    const unsigned width = 8U * packet.VarLen();
    if (width > 0)
        changeBits(known({.area = Area::Variables, .width = width, .number = number},
                         [&] {
                             return Declaration{.area = Area::Variables,
                                                .width = width,
                                                .label = "variable_",
                                                .sort = TextSort::Variable,
                                                .id = number};
                         }),
                   packet.VarData().data(), packet.VarLen());
}

void CVCDWriter::Model::take(const CSignal& packet) {
    const auto show = [this](const Code& variable, const std::vector<tagVCDValueData>& states) {
        change(variable, CVCDVectorValue(states.data(), static_cast<unsigned>(states.size())));
    };
    const auto defined = m_signals.find({packet.HWCtx(), packet.Master()});
    if (defined == m_signals.end() || defined->second.empty()) {
        const std::vector<tagVCDValueData> all = statesOf(packet, nullptr);
        if (!all.empty())
            show(declare({.area = Area::Signals,
                          .width = static_cast<unsigned>(all.size()),
                          .label = "lines_",
                          .suffix = std::to_string(packet.HWCtx()) + "_" + std::to_string(packet.Master())}),
                 all);
        return;
    }
    for (DefinedSignal& one : defined->second) {
        const std::vector<tagVCDValueData> lines = statesOf(packet, &one.lines);
        if (lines.empty())
            continue;
        if (one.variable.isNone())
            one.variable = declare({.area = Area::Signals,
                                    .width = static_cast<unsigned>(lines.size()),
                                    .label = "signal_",
                                    .sort = TextSort::Signal,
                                    .id = one.id});
        show(one.variable, lines);
    }
}

void CVCDWriter::Model::showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state) {
    const std::uint64_t owner = m_writer.numberOf(TextSort::StateMachine, machine);
    const std::uint64_t number = m_writer.numberOf(TextSort::StateMachineInstance, machine, instance);
    const Code& variable = known({.area = Area::States, .number = number, .indices = {owner}}, [&] {
        return Declaration{.area = Area::States,
                           .owner = static_cast<std::uint32_t>(owner),
                           .label = "instance_",
                           .sort = TextSort::StateMachineInstance,
                           .id = number,
                           .meaning = Meaning::State};
    });
    if (state) {
        changeNumber(variable, m_writer.numberOf(TextSort::State, machine, *state) & 0xFFFFFFFF);
    } else {
        m_writer.lose("state transitions that are not defined");
        changeToUnknown(variable);
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
        m_text += "\n$end\n$timescale " + std::string(unit) + " $end\n$scope module trace $end\n";
    }

    bool add(const Declaration& variable, std::string_view identifier) {
        goTo(variable);
        const std::string name = nameOf(variable);
        const std::string code(identifier);
        const std::string range = variable.type == Type::Vector ? "[" + std::to_string(variable.width - 1) + ":0]" : "";
        m_text += std::string("$var ") + kTypes[unsigned(variable.type)] + " " + std::to_string(variable.width) + " " +
                  code + " " + name + (range.empty() ? "" : " ") + range + " $end\n";
        const std::string scope = m_detail.empty() ? m_scope : m_scope + "." + m_detail;
        m_writer.m_shown.push_back({"trace." + scope + "." + name + range, variable.width, variable.meaning,
                                    variable.owner, variable.isDetail});
        const std::string initial = kInitial[unsigned(variable.type)];
        if (!initial.empty())
            m_initial += initial + code + "\n";
        return flush();
    }

    bool finish() {
        leave(m_detail);
        leave(m_scope);
        m_text += "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n" + m_initial + "$end\n";
        return flush();
    }

private:
    bool flush() {
        const bool isWritten = m_writer.writeOut(m_text);
        m_text.clear();
        return isWritten;
    }

    /// Opens and closes scopes until the variable may follow.
    void goTo(const Declaration& variable) {
        const bool isOwned = variable.area == Area::Cores || variable.area == Area::Threads;
        const std::string area = kAreas[unsigned(variable.area)] + (isOwned ? std::to_string(variable.owner) : "");
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
    std::string given(TextSort sort, std::uint64_t number) const { return legal(m_writer.names().name(sort, number)); }
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
                    {TextSort::Function, TextSort::Process, TextSort::Variable, TextSort::Counter, TextSort::Event,
                     TextSort::Signal, TextSort::StateMachine, TextSort::StateMachineInstance, TextSort::State},
                    std::move(options)),
      m_model(platform::makeOwned<Model>(*this)) {}

CVCDWriter::~CVCDWriter() = default;

bool CVCDWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CVCDWriter::end(std::uint64_t time) {
    m_model->end(time);
}

bool CVCDWriter::writeFile() {
    const auto& [unitsPerSecond, name] = unitOf(frequency());
    Header header(*this, name);
    for (const auto& [variable, code] : m_model->variables()) {
        if (!header.add(variable, code.identifier()))
            return false;
    }
    m_duration = unitsOf(m_model->time(), unitsPerSecond);
    return header.finish() && copyBody('#', unitsPerSecond);
}

} // namespace Quorvex
