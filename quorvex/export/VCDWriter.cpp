#include "quorvex/export/VCDWriter.h"

#include "quorvex/format/MessageQueue.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

namespace Quorvex {

namespace {

/// Deeper nesting is counted, but it is not remembered what is entered there.
constexpr std::size_t kDeepest = 4096;
constexpr unsigned kLongestChange = CSignalMask::kMaxBits + 16;

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
    char code[8];
    const unsigned size = CVCDIdentifier::write(code, sizeof code, id);
    return code[0] == '$' || std::find(code, code + size, '\x7f') != code + size;
}

CVCDVectorValue unknown() {
    static constexpr tagVCDValueData kUnknown = VCDUnknown;
    return CVCDVectorValue(&kUnknown, 1);
}

} // namespace

CVCDWriter::CVCDWriter(std::ostream& out) : CViewerWriter(out) {}

CVCDWriter::~CVCDWriter() = default;

// --- variables and their changes ----------------------------------------------------------------------------------

unsigned CVCDWriter::declare(Declaration&& declaration) {
    const auto [at, isNew] = m_variables.try_emplace(std::move(declaration), kNone);
    if (!isNew)
        return at->second;
    std::uint32_t id = m_identifiers.GetNextId();
    while (CVCDIdentifier::IsValid(id) && isReserved(id))
        id = m_identifiers.GetNextId();
    if (!CVCDIdentifier::IsValid(id)) {
        logError("VCDWriter: Cannot create new VCD Identifier!");
        lose("variables without an identifier");
        m_variables.erase(at);
        return kNone;
    }
    return at->second = id;
}

void CVCDWriter::change(unsigned variable, const CVCDValue& value) {
    if (variable == kNone)
        return;
    if (m_told != m_time) {
        m_told = m_time;
        writeBody("#" + std::to_string(m_time) + "\n");
    }
    char line[kLongestChange];
    unsigned size = value.write(line, sizeof line);
    size += CVCDIdentifier::write(line + size, static_cast<unsigned>(sizeof line) - size, variable);
    line[size++] = '\n';
    // The format allows letters of both cases; some readers know the small ones only.
    line[0] = static_cast<char>(line[0] == 'B' ? 'b' : line[0] == 'R' ? 'r' : line[0]);
    writeBody({line, size});
}

void CVCDWriter::changeNumber(unsigned variable, std::uint64_t number) {
    unsigned char bytes[sizeof number];
    for (unsigned i = 0; i < sizeof number; ++i)
        bytes[i] = static_cast<unsigned char>(number >> 8 * i);
    // Zeros in front may be left out.
    change(variable, CVCDVectorValue(bytes, std::max(1U, static_cast<unsigned>(std::bit_width(number)))));
}

void CVCDWriter::changeBytes(unsigned variable, const unsigned char* bytes, unsigned count) {
    change(variable, CVCDVectorValue(bytes, count * 8));
}

// --- what runs where ------------------------------------------------------------------------------------------------

CVCDWriter::Thread& CVCDWriter::thread(std::uint32_t number) {
    const auto [at, isNew] = m_threads.try_emplace(number);
    Thread& thread = at->second;
    if (isNew) {
        const auto add = [&](Type type, const char* name, Meaning meaning) {
            return declare({Area::Threads, number, false, type, 32, name, {}, 0, {}, meaning});
        };
        thread.functions.current = add(Type::Vector, "function", Meaning::Function);
        thread.functions.depth = add(Type::Integer, "depth", Meaning::Value);
        thread.coreVariable = add(Type::Vector, "core", Meaning::Core);
    }
    return thread;
}

CVCDWriter::Core& CVCDWriter::core(std::uint32_t number) {
    const auto [at, isNew] = m_cores.try_emplace(number);
    if (isNew)
        at->second.threadVariable =
            declare({Area::Cores, number, false, Type::Vector, 32, "thread", {}, 0, {}, Meaning::Thread});
    return at->second;
}

void CVCDWriter::runs(const CCoreContext& context) {
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

template <class Bit> void CVCDWriter::enter(Stack& stack, std::uint32_t id, Bit&& bit) {
    if (stack.ids.size() == kDeepest) {
        ++stack.deeper;
        lose("nesting deeper than 4096, shown by its depth only");
    } else {
        stack.ids.push_back(id);
        Entered& entered = stack.bits[id];
        if (entered.variable == kNone)
            entered.variable = bit();
        if (entered.count++ == 0)
            change(entered.variable, CVCDSingleValue(true));
        changeNumber(stack.current, id);
    }
    changeNumber(stack.depth, stack.ids.size() + stack.deeper);
}

void CVCDWriter::leaveLast(Stack& stack) {
    Entered& entered = stack.bits[stack.ids.back()];
    if (--entered.count == 0)
        change(entered.variable, CVCDSingleValue(false));
    stack.ids.pop_back();
}

void CVCDWriter::leave(Stack& stack, std::uint32_t id) {
    if (stack.deeper > 0) {
        --stack.deeper;
    } else {
        const auto last = std::find(stack.ids.rbegin(), stack.ids.rend(), id);
        if (last == stack.ids.rend()) {
            lose("leaves of what had not been entered");
            return;
        }
        // What was entered behind it has been left too, though nothing tells when.
        for (auto missing = last - stack.ids.rbegin(); missing > 0; --missing) {
            lose("leaves that are missing");
            leaveLast(stack);
        }
        leaveLast(stack);
        if (stack.ids.empty())
            change(stack.current, unknown());
        else
            changeNumber(stack.current, stack.ids.back());
    }
    changeNumber(stack.depth, stack.ids.size() + stack.deeper);
}

void CVCDWriter::showFunction(const CCoreContext& context, std::uint32_t id, bool entered) {
    Stack& stack = thread(context.SWCtx()).functions;
    if (!entered)
        leave(stack, id);
    else
        enter(stack, id, [&] {
            return declare(
                {Area::Threads, context.SWCtx(), true, Type::Bit, 1, "function_", CTraceNames::Sort::Function, id, {}});
        });
}

void CVCDWriter::showProcess(const CCoreContext& context, std::uint32_t id, bool entered) {
    Stack& stack = core(context.HWCtx()).processes;
    if (stack.current == kNone) {
        const auto add = [&](Type type, const char* name, Meaning meaning) {
            return declare({Area::Cores, context.HWCtx(), false, type, 32, name, {}, 0, {}, meaning});
        };
        stack.current = add(Type::Vector, "process", Meaning::Process);
        stack.depth = add(Type::Integer, "process_depth", Meaning::Value);
    }
    if (!entered)
        leave(stack, id);
    else
        enter(stack, id, [&] {
            return declare(
                {Area::Cores, context.HWCtx(), true, Type::Bit, 1, "process_", CTraceNames::Sort::Process, id, {}});
        });
}

void CVCDWriter::showException(const CCoreContext& context, std::uint32_t id, bool entered) {
    Stack& stack = core(context.HWCtx()).exceptions;
    if (stack.current == kNone) {
        const auto add = [&](Type type, const char* name, Meaning meaning) {
            return declare({Area::Cores, context.HWCtx(), false, type, 32, name, {}, 0, {}, meaning});
        };
        stack.current = add(Type::Vector, "exception", Meaning::Exception);
        stack.depth = add(Type::Integer, "exception_depth", Meaning::Value);
    }
    if (entered)
        enter(stack, id, [] { return kNone; });
    else
        leave(stack, id);
}

// --- values
// -----------------------------------------------------------------------------------------------------------

void CVCDWriter::showCounter(std::uint32_t id, const TCounter_t& value, const std::string& index) {
    if (looksLikeDouble(value)) {
        change(declare({Area::Counters, 0, false, Type::Real, 64, "counter_", CTraceNames::Sort::Counter, id, index}),
               CVCDRealValue(value.dbl));
    } else {
        changeNumber(
            declare({Area::Counters, 0, false, Type::Vector, 64, "counter_", CTraceNames::Sort::Counter, id, index}),
            value.u64);
    }
}

void CVCDWriter::showSignal(const CSignal& signal) {
    const auto states = [&](const CSignalMask* lines) {
        std::vector<tagVCDValueData> result;
        for (unsigned i = 0; i < (lines ? lines->bits() : signal.SignalValue().bits()); ++i) {
            if (lines && !lines->test(i))
                continue;
            const bool valid =
                i < signal.SignalValue().bits() && i < signal.SignalMask().bits() && signal.SignalMask().test(i);
            result.push_back(!valid ? VCDUnknown : signal.SignalValue().test(i) ? VCDOne : VCDZero);
        }
        return result;
    };
    const auto showStates = [&](unsigned variable, const std::vector<tagVCDValueData>& values) {
        change(variable, CVCDVectorValue(values.data(), static_cast<unsigned>(values.size())));
    };
    const auto defined = m_signals.find({signal.HWCtx(), signal.Master()});
    if (defined == m_signals.end() || defined->second.empty()) {
        const std::vector<tagVCDValueData> all = states(nullptr);
        const std::string of = std::to_string(signal.HWCtx()) + "_" + std::to_string(signal.Master());
        if (!all.empty())
            showStates(
                declare(
                    {Area::Signals, 0, false, Type::Vector, static_cast<unsigned>(all.size()), "lines_", {}, 0, of}),
                all);
        return;
    }
    for (DefinedSignal& one : defined->second) {
        const std::vector<tagVCDValueData> lines = states(&one.lines);
        if (lines.empty())
            continue;
        if (one.variable == kNone)
            one.variable = declare({Area::Signals,
                                    0,
                                    false,
                                    Type::Vector,
                                    static_cast<unsigned>(lines.size()),
                                    "signal_",
                                    CTraceNames::Sort::Signal,
                                    one.id,
                                    {}});
        showStates(one.variable, lines);
    }
}

void CVCDWriter::showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state) {
    const unsigned variable = declare({Area::States,
                                       machine,
                                       false,
                                       Type::Vector,
                                       32,
                                       "instance_",
                                       CTraceNames::Sort::Instance,
                                       CTraceNames::pair(machine, instance),
                                       {},
                                       Meaning::State});
    if (state) {
        changeNumber(variable, *state);
    } else {
        lose("state transitions that are not defined");
        change(variable, unknown());
    }
}

// --- packets
// ----------------------------------------------------------------------------------------------------------

void CVCDWriter::show(const CPacket& packet, std::uint64_t time) {
    m_time = time;
    visitKind(packet, [this](const auto& kind) {
        using Kind = std::remove_cvref_t<decltype(kind)>;
        constexpr tagTCode kCode = Kind::kCode;
        if constexpr (kCode == FunctionEnter || kCode == FunctionLeave) {
            runs(kind);
            showFunction(kind, kind.TgtFuncId(), kCode == FunctionEnter);
        } else if constexpr (kCode == ProcessEnter || kCode == ProcessLeave) {
            runs(kind);
            showProcess(kind, kind.ProcId(), kCode == ProcessEnter);
        } else if constexpr (kCode == HWExceptionEnter || kCode == HWExceptionLeave) {
            runs(kind);
            showException(kind, kind.ExceptionId(), kCode == HWExceptionEnter);
        } else if constexpr (kCode == CounterValue) {
            showCounter(kind.CntrId(), kind.CntrVal(), {});
        } else if constexpr (kCode == CounterValueDim1) {
            showCounter(kind.CntrId(), kind.CntrVal(), "_" + std::to_string(kind.CntrIdx1().u64));
        } else if constexpr (kCode == CounterValueDim2) {
            showCounter(kind.CntrId(), kind.CntrVal(),
                        "_" + std::to_string(kind.CntrIdx1().u64) + "_" + std::to_string(kind.CntrIdx2().u64));
        } else if constexpr (kCode == CounterValueDimN) {
            std::string index;
            for (unsigned i = 0; i < kind.CntrDim(); ++i)
                index += "_" + std::to_string(kind.CntrIdx()[i].u64);
            showCounter(kind.CntrId(), kind.CntrVal(), index);
        } else if constexpr (kCode == CounterValueVar) {
            const unsigned width = kind.CntrVal().Length();
            std::string index;
            for (unsigned i = kind.CntrIdx().Length(); i-- > 0;)
                index += (index.empty() ? "_" : "") + std::to_string(kind.CntrIdx().data()[i]) + (i > 0 ? "_" : "");
            if (width > 0)
                changeBytes(declare({Area::Counters, 0, false, Type::Vector, 8 * width, "counter_",
                                     CTraceNames::Sort::Counter, kind.CntrId(), index}),
                            kind.CntrVal().data(), width);
        } else if constexpr (kCode == Event) {
            runs(kind);
            change(
                declare({Area::Events, 0, false, Type::Event, 1, "event_", CTraceNames::Sort::Event, kind.EvtId(), {}}),
                CVCDSingleValue(true));
            const unsigned width = kind.EvtData().Length();
            if (width > 0)
                changeBytes(declare({Area::Events, 0, false, Type::Vector, 8 * width, "event_",
                                     CTraceNames::Sort::Event, kind.EvtId(), "_data"}),
                            kind.EvtData().data(), width);
        } else if constexpr (kCode == VariableRead || kCode == VariableWrite) {
            runs(kind);
            const unsigned width = kind.VarLen();
            if (width > 0)
                changeBytes(declare({Area::Variables,
                                     0,
                                     false,
                                     Type::Vector,
                                     8 * width,
                                     "variable_",
                                     CTraceNames::Sort::Variable,
                                     kind.VarId(),
                                     {}}),
                            kind.VarData().data(), width);
        } else if constexpr (kCode == SignalDefine) {
            auto& defined = m_signals[{kind.HWCtx(), kind.Master()}];
            std::erase_if(defined, [&](const DefinedSignal& one) { return one.id == kind.SignalId(); });
            defined.push_back({kind.SignalId(), kind.SignalMask()});
        } else if constexpr (kCode == SignalUndefine) {
            std::erase_if(m_signals[{kind.HWCtx(), kind.Master()}],
                          [&](const DefinedSignal& one) { return one.id == kind.SignalId(); });
        } else if constexpr (kCode == Signal) {
            showSignal(kind);
        } else if constexpr (kCode == TransitionDefine) {
            m_targets[CTraceNames::pair(kind.StateMachine(), kind.CTransitionDefinePayload::Transition())] =
                kind.TargetState();
        } else if constexpr (kCode == InitialState) {
            showState(kind.StateMachine(), kind.StateMachineInstance(), kind.State());
        } else if constexpr (kCode == Transition) {
            const auto target = m_targets.find(CTraceNames::pair(kind.StateMachine(), kind.TransitionId()));
            showState(kind.StateMachine(), kind.StateMachineInstance(),
                      target == m_targets.end() ? std::nullopt : std::optional(target->second));
        } else if constexpr (kCode == ExecInsn || kCode == NonExecInsn || kCode == DirectBranch ||
                             kCode == IndirectBranch) {
            runs(kind);
            lose("instructions and branches");
        } else if constexpr (kCode == ReadData || kCode == WriteData) {
            runs(kind);
            lose("data accesses");
        } else if constexpr (kCode == BusData || kCode == BusAddrData) {
            lose("bus data");
        } else if constexpr (kCode == SystemData) {
            lose("system trace data");
        } else if constexpr (kCode == Message) {
            lose("messages");
        } else if constexpr (kCode == TraceBroken) {
            lose("gaps in the trace");
        }
    });
}

// --- file
// -------------------------------------------------------------------------------------------------------------

void CVCDWriter::end(std::uint64_t time) {
    m_time = time;
    if (m_told != time)
        writeBody("#" + std::to_string(time) + "\n");
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
    std::string text = "$version\n\tQuorvex " QUORVEX_VERSION "\n$end\n$comment\n\t";
    text +=
        startTick() == kUnknown64 ? "No packet tells a tick." : "Time 0 is tick " + std::to_string(startTick()) + ".";
    text += frequency() == 0 ? " The clock is not known: a tick counts as 1 ns."
                             : " The clock has " + std::to_string(frequency()) + " ticks a second.";
    text += "\n$end\n$timescale " + std::string(unit->second) + " $end\n$scope module trace $end\n";

    static constexpr const char* kAreas[] = {"core_",   "thread_", "counters", "events",
                                             "signals", "states",  "variables"};
    static constexpr const char* kDetails[] = {"processes", "functions"};
    static constexpr const char* kTypes[] = {"wire", "reg", "integer", "real", "event"};
    std::string initial, scope, detail;
    std::set<std::string> used;
    const auto leave = [&](std::string& opened) {
        if (!opened.empty())
            text += "$upscope $end\n";
        opened.clear();
    };
    for (const auto& [variable, id] : m_variables) {
        const bool isOwned = variable.area == Area::Cores || variable.area == Area::Threads;
        const std::string area = kAreas[unsigned(variable.area)] + (isOwned ? std::to_string(variable.owner) : "");
        if (scope != area || (!detail.empty() && !variable.isDetail)) {
            leave(detail);
            if (scope != area) {
                leave(scope);
                text += "$scope module " + area + " $end\n";
                scope = area;
            }
            used.clear();
        }
        if (variable.isDetail && detail.empty()) {
            detail = kDetails[unsigned(variable.area)];
            text += "$scope module " + detail + " $end\n";
            used.clear();
        }
        std::string name =
            variable.sort ? legal(names().name(*variable.sort, variable.id)) : std::string(variable.label);
        if (variable.sort == CTraceNames::Sort::Instance) {
            const std::string machine = legal(names().name(CTraceNames::Sort::StateMachine, variable.owner));
            name = (machine.empty() ? "machine_" + std::to_string(variable.owner) : machine) + "_" +
                   (name.empty() ? std::to_string(variable.id & 0xFFFFFFFF) : name);
        } else if (name.empty()) {
            name = std::string(variable.label) + std::to_string(variable.id);
        }
        name += variable.suffix;
        if (!used.insert(name).second) {
            name += "_" + std::to_string(variable.id & 0xFFFFFFFF);
            for (unsigned number = 2; !used.insert(name).second; ++number)
                name += "_" + std::to_string(number);
        }
        char code[8];
        const std::string_view identifier(code, CVCDIdentifier::write(code, sizeof code, id));
        text += std::string("$var ") + kTypes[unsigned(variable.type)] + " " + std::to_string(variable.width) + " ";
        text.append(identifier).append(" ").append(name);
        const std::string range = variable.type == Type::Vector ? "[" + std::to_string(variable.width - 1) + ":0]" : "";
        text += (range.empty() ? "" : " ") + range + " $end\n";
        m_shown.push_back({"trace." + scope + (detail.empty() ? "" : "." + detail) + "." + name + range, variable.width,
                           variable.meaning, variable.owner, variable.isDetail});
        if (variable.type == Type::Event)
            continue;
        initial += variable.type == Type::Bit       ? "0"
                   : variable.type == Type::Real    ? "r0 "
                   : variable.type == Type::Integer ? "b0 "
                                                    : "bX ";
        initial.append(identifier).append("\n");
        if (!writeOut(text))
            return false;
        text.clear();
    }
    leave(detail);
    leave(scope);
    text += "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n" + initial + "$end\n";
    m_duration = unitsOf(m_time, unit->first);
    return writeOut(text) && copyBody('#', unit->first);
}

} // namespace Quorvex
