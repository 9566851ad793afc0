#include "quorvex/export/VCDWriter.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/export/VCDIdentifier.h"
#include "quorvex/export/VCDValue.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <bit>
#include <compare>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace Quorvex {

namespace {

/// Deeper nesting is counted, but it is not remembered what is entered there.
constexpr std::size_t kDeepest = 4096;
constexpr unsigned kLongestChange = CSignalMask::kMaxBits + 16;
constexpr unsigned kNone = ~0U;

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

/// The characters by which a variable is known in the body.
std::string codeOf(std::uint32_t id) {
    char code[8];
    return std::string(code, CVCDIdentifier::write(code, sizeof code, id));
}

/// Codes that readers take for something else: they expect none beyond '~', and "$end" is a word of the format.
bool isReserved(std::uint32_t id) {
    const std::string code = codeOf(id);
    return code[0] == '$' || code.find('\x7f') != std::string::npos;
}

CVCDVectorValue unknown() {
    static constexpr tagVCDValueData kUnknown = VCDUnknown;
    return CVCDVectorValue(&kUnknown, 1);
}

std::string indexText(const TCounterIdx_t& index) {
    return "_" + std::to_string(index.u64);
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

} // namespace

/// What runs where, and which values there are. Every change of it is a line of the body.
class CVCDWriter::Model {
public:
    explicit Model(CVCDWriter& writer) : m_writer(writer) {}

    bool show(const CPacket& packet, std::uint64_t time) {
        m_time = time;
        const bool isShown = visitKind(
            packet, [this](const auto& kind) requires requires { this->take(kind); } { take(kind); });
        const CCoreContext* place = isShown ? nullptr : placeOf(packet);
        if (place)
            runs(*place);
        return isShown;
    }

    void end(std::uint64_t time) {
        m_time = time;
        if (m_told != time)
            m_writer.writeBody("#" + std::to_string(time) + "\n");
    }

    std::uint64_t time() const { return m_time; }
    /// The variables in the order of the file, with their identifiers.
    const std::map<Declaration, unsigned>& variables() const { return m_variables; }

private:
    struct Entered {
        unsigned variable = kNone;
        unsigned count = 0;
    };
    struct Stack {
        CallStack<std::uint32_t> ids{kDeepest};
        std::unordered_map<std::uint32_t, Entered> bits;
        unsigned current = kNone;
        unsigned depth = kNone;
    };
    struct Core {
        std::optional<std::uint32_t> thread;
        unsigned threadVariable = kNone;
        Stack processes;
        Stack exceptions;
    };
    struct Thread {
        std::optional<std::uint32_t> core;
        unsigned coreVariable = kNone;
        Stack functions;
    };
    struct DefinedSignal {
        std::uint32_t id;
        CSignalMask lines;
        unsigned variable = kNone;
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
    void take(const CCounterValue& packet) { showCounter(packet, {}); }
    void take(const CCounterValueDim1& packet) { showCounter(packet, indexText(packet.CntrIdx1())); }
    void take(const CCounterValueDim2& packet) {
        showCounter(packet, indexText(packet.CntrIdx1()) + indexText(packet.CntrIdx2()));
    }
    void take(const CCounterValueDimN& packet) {
        std::string index;
        for (unsigned i = 0; i < packet.CntrDim(); ++i)
            index += indexText(packet.CntrIdx()[i]);
        showCounter(packet, std::move(index));
    }
    void take(const CCounterValueVar& packet) {
        const TVarCounter_t& bytes = packet.CntrIdx();
        std::string index;
        for (unsigned i = bytes.Length(); i-- > 0;)
            index += (index.empty() ? "_" : "") + std::to_string(bytes.data()[i]) + (i > 0 ? "_" : "");
        const TVarCounter_t& value = packet.CntrVal();
        showBytes({.area = Area::Counters,
                   .label = "counter_",
                   .sort = TextSort::Counter,
                   .id = m_writer.numberOf(TextSort::Counter, packet.CntrId()),
                   .suffix = std::move(index)},
                  value.data(), value.Length());
    }
    void take(const CEvent& packet) {
        runs(packet);
        const std::uint32_t number = m_writer.numberOf(TextSort::Event, packet.EvtId());
        change(declare({.area = Area::Events,
                        .type = Type::Event,
                        .width = 1,
                        .label = "event_",
                        .sort = TextSort::Event,
                        .id = number}),
               CVCDSingleValue(true));
        showBytes({.area = Area::Events, .label = "event_", .sort = TextSort::Event, .id = number, .suffix = "_data"},
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
    template <class Packet> void showCounter(const Packet& packet, std::string&& index);
    template <class Access> void showVariable(const Access& packet);
    void showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state);

    /// The packet tells that its thread runs on its core.
    void runs(const CCoreContext& context);
    Thread& thread(std::uint32_t number);
    Core& core(std::uint32_t number);
    /// A variable of a core that is there once something has been entered.
    unsigned declareOn(std::uint32_t core, Type type, std::string_view name, Meaning meaning) {
        return declare({.area = Area::Cores, .owner = core, .type = type, .label = name, .meaning = meaning});
    }
    /// Enter and leave; `bit` declares the variable of one id.
    template <class Bit> void enter(Stack& stack, std::uint32_t id, Bit bit);
    void leave(Stack& stack, std::uint32_t id);

    unsigned declare(Declaration&& declaration);
    /// Writes a change of a variable.
    void change(unsigned variable, const CVCDValue& value);
    void changeNumber(unsigned variable, std::uint64_t number);
    /// Writes raw bytes as the value of a variable of their width; nothing where there are none.
    void showBytes(Declaration&& declaration, const unsigned char* bytes, unsigned count);

    CVCDWriter& m_writer;
    std::uint64_t m_time = 0;            ///< of the packet that is shown
    std::optional<std::uint64_t> m_told; ///< the last time in the body
    CVCDIdentifier m_identifiers;
    std::map<Declaration, unsigned> m_variables;
    std::unordered_map<std::uint32_t, Thread> m_threads;
    std::unordered_map<std::uint32_t, Core> m_cores;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
};

unsigned CVCDWriter::Model::declare(Declaration&& declaration) {
    const auto [at, isNew] = m_variables.try_emplace(std::move(declaration), kNone);
    if (!isNew)
        return at->second;
    std::uint32_t id = m_identifiers.GetNextId();
    while (CVCDIdentifier::IsValid(id) && isReserved(id))
        id = m_identifiers.GetNextId();
    if (!CVCDIdentifier::IsValid(id)) {
        logError("VCDWriter: Cannot create new VCD Identifier!");
        m_writer.lose("variables without an identifier");
        m_variables.erase(at);
        return kNone;
    }
    return at->second = id;
}

void CVCDWriter::Model::change(unsigned variable, const CVCDValue& value) {
    if (variable == kNone)
        return;
    if (m_told != m_time) {
        m_told = m_time;
        m_writer.writeBody("#" + std::to_string(m_time) + "\n");
    }
    char line[kLongestChange];
    unsigned size = value.write(line, sizeof line);
    size += CVCDIdentifier::write(line + size, static_cast<unsigned>(sizeof line) - size, variable);
    line[size++] = '\n';
    // The format allows letters of both cases; some readers know the small ones only.
    line[0] = static_cast<char>(line[0] == 'B' ? 'b' : line[0] == 'R' ? 'r' : line[0]);
    m_writer.writeBody({line, size});
}

void CVCDWriter::Model::changeNumber(unsigned variable, std::uint64_t number) {
    unsigned char bytes[sizeof number];
    for (unsigned i = 0; i < sizeof number; ++i)
        bytes[i] = static_cast<unsigned char>(number >> 8 * i);
    // Zeros in front may be left out.
    change(variable, CVCDVectorValue(bytes, std::max(1U, static_cast<unsigned>(std::bit_width(number)))));
}

void CVCDWriter::Model::showBytes(Declaration&& declaration, const unsigned char* bytes, unsigned count) {
    if (count == 0)
        return;
    declaration.width = 8 * count;
    change(declare(std::move(declaration)), CVCDVectorValue(bytes, 8 * count));
}

CVCDWriter::Model::Thread& CVCDWriter::Model::thread(std::uint32_t number) {
    const auto [at, isNew] = m_threads.try_emplace(number);
    Thread& thread = at->second;
    if (isNew) {
        const auto add = [&](Type type, std::string_view name, Meaning meaning) {
            return declare({.area = Area::Threads, .owner = number, .type = type, .label = name, .meaning = meaning});
        };
        thread.functions.current = add(Type::Vector, "function", Meaning::Function);
        thread.functions.depth = add(Type::Integer, "depth", Meaning::Depth);
        thread.coreVariable = add(Type::Vector, "core", Meaning::Core);
    }
    return thread;
}

CVCDWriter::Model::Core& CVCDWriter::Model::core(std::uint32_t number) {
    const auto [at, isNew] = m_cores.try_emplace(number);
    if (isNew)
        at->second.threadVariable = declareOn(number, Type::Vector, "thread", Meaning::Thread);
    return at->second;
}

void CVCDWriter::Model::runs(const CCoreContext& context) {
    Core& where = core(context.HWCtx());
    Thread& what = thread(context.SWCtx());
    if (where.thread != context.SWCtx()) {
        where.thread = context.SWCtx();
        changeNumber(where.threadVariable, context.SWCtx());
    }
    if (what.core != context.HWCtx()) {
        what.core = context.HWCtx();
        changeNumber(what.coreVariable, context.HWCtx());
    }
}

template <class Bit> void CVCDWriter::Model::enter(Stack& stack, std::uint32_t id, Bit bit) {
    if (stack.ids.enter([id] { return id; })) {
        Entered& entered = stack.bits[id];
        if (entered.variable == kNone)
            entered.variable = bit();
        if (entered.count++ == 0)
            change(entered.variable, CVCDSingleValue(true));
        changeNumber(stack.current, id);
    } else {
        m_writer.lose("nesting deeper than 4096, shown by its depth only");
    }
    changeNumber(stack.depth, stack.ids.depth());
}

void CVCDWriter::Model::leave(Stack& stack, std::uint32_t id) {
    const auto left = stack.ids.leave([id](std::uint32_t entered) { return entered == id; });
    if (!left)
        return m_writer.lose("leaves of what had not been entered");
    for (std::size_t count = *left; count > 0; --count) {
        // What was entered behind it has been left too, though nothing tells when.
        if (count > 1)
            m_writer.lose("leaves that are missing");
        Entered& entered = stack.bits[stack.ids.back()];
        if (--entered.count == 0)
            change(entered.variable, CVCDSingleValue(false));
        stack.ids.pop();
    }
    if (*left > 0 && stack.ids.empty())
        change(stack.current, unknown());
    else if (*left > 0)
        changeNumber(stack.current, stack.ids.back());
    changeNumber(stack.depth, stack.ids.depth());
}

void CVCDWriter::Model::showFunction(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    runs(context);
    const std::uint32_t number = m_writer.numberOf(TextSort::Function, id);
    Stack& stack = thread(context.SWCtx()).functions;
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
    runs(context);
    const std::uint32_t number = m_writer.numberOf(TextSort::Process, id);
    Stack& stack = core(context.HWCtx()).processes;
    if (stack.current == kNone) {
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
    runs(context);
    Stack& stack = core(context.HWCtx()).exceptions;
    if (stack.current == kNone) {
        stack.current = declareOn(context.HWCtx(), Type::Vector, "exception", Meaning::Exception);
        stack.depth = declareOn(context.HWCtx(), Type::Integer, "exception_depth", Meaning::Depth);
    }
    if (isEntered)
        enter(stack, id, [] { return kNone; });
    else
        leave(stack, id);
}

template <class Packet> void CVCDWriter::Model::showCounter(const Packet& packet, std::string&& index) {
    const TCounter_t& value = packet.CntrVal();
    const bool isReal = looksLikeDouble(value);
    const unsigned variable = declare({.area = Area::Counters,
                                       .type = isReal ? Type::Real : Type::Vector,
                                       .width = 64,
                                       .label = "counter_",
                                       .sort = TextSort::Counter,
                                       .id = m_writer.numberOf(TextSort::Counter, packet.CntrId()),
                                       .suffix = std::move(index)});
    if (isReal)
        change(variable, CVCDRealValue(value.dbl));
    else
        changeNumber(variable, value.u64);
}

template <class Access> void CVCDWriter::Model::showVariable(const Access& packet) {
    runs(packet);
    showBytes({.area = Area::Variables,
               .label = "variable_",
               .sort = TextSort::Variable,
               .id = m_writer.numberOf(TextSort::Variable, packet.VarId())},
              packet.VarData().data(), packet.VarLen());
}

void CVCDWriter::Model::take(const CSignal& packet) {
    const auto show = [this](unsigned variable, const std::vector<tagVCDValueData>& states) {
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
        if (one.variable == kNone)
            one.variable = declare({.area = Area::Signals,
                                    .width = static_cast<unsigned>(lines.size()),
                                    .label = "signal_",
                                    .sort = TextSort::Signal,
                                    .id = one.id});
        show(one.variable, lines);
    }
}

void CVCDWriter::Model::showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state) {
    const unsigned variable = declare({.area = Area::States,
                                       .owner = m_writer.numberOf(TextSort::StateMachine, machine),
                                       .label = "instance_",
                                       .sort = TextSort::StateMachineInstance,
                                       .id = m_writer.numberOf(TextSort::StateMachineInstance, machine, instance),
                                       .meaning = Meaning::State});
    if (state) {
        changeNumber(variable, m_writer.numberOf(TextSort::State, machine, *state) & 0xFFFFFFFF);
    } else {
        m_writer.lose("state transitions that are not defined");
        change(variable, unknown());
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

    bool add(const Declaration& variable, unsigned id) {
        goTo(variable);
        const std::string name = nameOf(variable);
        const std::string code = codeOf(id);
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

CVCDWriter::CVCDWriter(std::ostream& out)
    : CViewerWriter(out, {TextSort::Function, TextSort::Process, TextSort::Variable, TextSort::Counter, TextSort::Event,
                          TextSort::Signal, TextSort::StateMachine, TextSort::StateMachineInstance, TextSort::State}),
      m_model(std::make_unique<Model>(*this)) {}

CVCDWriter::~CVCDWriter() = default;

bool CVCDWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CVCDWriter::end(std::uint64_t time) {
    m_model->end(time);
}

bool CVCDWriter::writeFile() {
    // A unit that a tick is a whole number of, where there is one.
    static constexpr std::pair<std::uint64_t, const char*> kUnits[] = {
        {1, "1 s"}, {1'000, "1 ms"}, {1'000'000, "1 us"}, {1'000'000'000, "1 ns"}, {1'000'000'000'000, "1 ps"}};
    const auto* unit = &kUnits[frequency() > 1'000'000'000 ? 4 : 3];
    for (const auto& one : kUnits) {
        if (one.first == frequency())
            unit = &one;
    }
    Header header(*this, unit->second);
    for (const auto& [variable, id] : m_model->variables()) {
        if (!header.add(variable, id))
            return false;
    }
    m_duration = unitsOf(m_model->time(), unit->first);
    return header.finish() && copyBody('#', unit->first);
}

} // namespace Quorvex
