#include "quorvex/export/VCDModel.h"

#include "quorvex/export/VCDValue.h"

#include <algorithm>
#include <string>

namespace Quorvex {

using namespace vcd;

namespace {

constexpr char kMissing[] = "leaves that are missing";
constexpr char kNoEnter[] = "leaves of what had not been entered";
constexpr char kDeep[] = "nesting deeper than 4096, shown by its depth only";

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

bool CVCDWriter::Model::show(const CPacket& packet, std::uint64_t time) {
    m_body.setTime(time);
    const bool isShown = visitKind(
        packet, [this](const auto& kind) requires requires { this->take(kind); } { take(kind); });
    const CCoreContext* place = isShown ? nullptr : placeOf(packet);
    if (place)
        runs(*place);
    return isShown;
}

void CVCDWriter::Model::showGap(const CCoreContext& context) {
    const bool isWhole = m_writer.isOneProcess();
    if (m_body.isOff())
        return;
    for (auto& [number, thread] : m_threads) {
        if (isWhole || thread.inputs.isLast(m_writer.process()))
            forget(thread, false);
    }
    if (isWhole) {
        m_body.turnOff();
    } else {
        m_body.forget([&](const Declaration& variable) {
            const Thread* const thread = variable.area == Area::Threads ? m_threads.find(variable.owner) : nullptr;
            return (thread && thread->inputs.isLast(m_writer.process())) ||
                   (variable.area == Area::Cores && variable.owner == context.HWCtx());
        });
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
}

CVCDWriter::Model::Thread& CVCDWriter::Model::thread(std::uint32_t number) {
    return m_threads.findOrMake(number, [this, number] {
        const auto add = [&](std::string_view name, Meaning meaning) {
            return m_body.declare({.area = Area::Threads, .owner = number, .meaning = meaning, .label = name});
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
        m_body.changeToIdle(from.threadVariable);
    }
    thread->core.reset();
    m_body.changeToIdle(thread->coreVariable);
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
            m_body.changeToIdle(before->coreVariable);
        }
        where.thread = threadNumber;
        m_body.changeNumber(where.threadVariable, threadNumber);
    }
    if (what.core != coreNumber) {
        what.core = coreNumber;
        m_body.changeNumber(what.coreVariable, coreNumber);
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
            m_body.changeBit(entered.variable, false);
        entered.count = 0;
    }
    if (isKnown) {
        stop(&thread);
        if (wasIn) {
            m_body.changeToIdle(thread.view.current);
            m_body.changeNumber(thread.view.depth, 0);
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
        m_body.changeToIdle(view.current);
    else
        m_body.change(view.current, stack.back()->current);
    changeDepth(view, stack);
}

CVCDWriter::Model::Core& CVCDWriter::Model::showInstruction(const CCoreContext& context, bool isExecuted) {
    Core& core = *runs(context).core;
    if (!core.address)
        core.address = declareOn(context.HWCtx(), "address", Meaning::Address);
    if (!isExecuted && !core.executed)
        core.executed =
            m_body.declare({.area = Area::Cores, .owner = context.HWCtx(), .type = Type::Bit, .label = "executed"});
    m_body.changeBit(core.executed, isExecuted);
    if (context.CurrAddr() == kUnknown64 && core.address)
        m_body.changeToUnknown(core.address);
    else
        m_body.changeNumber(core.address, context.CurrAddr());
    return core;
}

template <class Bit> void CVCDWriter::Model::enter(View& view, Stack& stack, std::uint32_t id, Bit bit) {
    const auto find = [&] {
        return &view.entered.findOrMake(id, [&] { return Entered{.current = NumberLine(view.current, id), .id = id}; });
    };
    if (stack.enter(find)) {
        Entered& entered = *stack.back();
        if (!entered.variable)
            entered.variable = bit();
        if (entered.count++ == 0)
            m_body.changeBit(entered.variable, true);
        m_body.change(view.current, entered.current);
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
            m_body.changeBit(entered.variable, false);
        stack.pop();
    }
    if (*left > 0 && !stack.empty())
        m_body.change(view.current, stack.back()->current);
    else if (*left > 0)
        m_body.changeToIdle(view.current);
    changeDepth(view, stack);
}

void CVCDWriter::Model::showFunction(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    Thread& thread = *runs(context).thread;
    const std::uint32_t number = m_writer.numberOf(TextSort::Function, id);
    if (!isEntered)
        return leave(thread.view, *thread.stack, number);
    enter(thread.view, *thread.stack, number,
          [&] { return m_body.declareDetail(Area::Threads, context.SWCtx(), number); });
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
        enter(view, core.processes, number, [&] { return m_body.declareDetail(Area::Cores, context.HWCtx(), number); });
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

void CVCDWriter::Model::showCounter(const CCounterValueBase& packet, const CounterCell& cell) {
    runs(packet);
    const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
    const auto declaration = [&] {
        return Declaration{.area = Area::Counters,
                           .meaning = Meaning::Counter,
                           .label = "counter_",
                           .sort = TextSort::Counter,
                           .id = number,
                           .suffix = cell.text("_", "")};
    };
    ValueKey key = keyOf(Area::Counters, number);
    m_body.changeCounter(cell.tell(key) ? m_body.known(key, declaration) : m_body.declare(declaration()),
                         packet.CntrVal().u64);
}

template <class Access> void CVCDWriter::Model::showVariable(const Access& packet) {
    runs(packet);
    if (packet.VarLen() == 0)
        return m_writer.lose("accesses to variables without a value");
    const std::uint32_t number = m_writer.numberOf(TextSort::Variable, packet.VarId());
    const auto declaration = [&] {
        return Declaration{.area = Area::Variables, .label = "variable_", .sort = TextSort::Variable, .id = number};
    };
    m_body.changeBits(m_body.known(keyOf(Area::Variables, number), declaration), packet.VarData().data(),
                      packet.VarLen());
}

void CVCDWriter::Model::take(const CSignal& packet) {
    const auto show = [this](Wire* variable, const std::vector<tagVCDValueData>& states) {
        const auto width = static_cast<unsigned>(states.size());
        if (variable)
            variable->width = std::max(variable->width, width);
        m_body.change(variable, CVCDVectorValue(states.data(), width));
    };
    const auto defined = m_signals.find({packet.HWCtx(), packet.Master()});
    if (defined == m_signals.end() || defined->second.empty()) {
        const std::vector<tagVCDValueData> all = statesOf(packet, nullptr);
        if (!all.empty())
            show(m_body.declare({.area = Area::Signals,
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
            one.variable =
                m_body.declare({.area = Area::Signals, .label = "signal_", .sort = TextSort::Signal, .id = one.id});
        show(one.variable, lines);
    }
}

void CVCDWriter::Model::showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state) {
    const std::uint64_t owner = m_writer.numberOf(TextSort::StateMachine, machine);
    const std::uint64_t number = m_writer.numberOf(TextSort::StateMachineInstance, machine, instance);
    ValueKey key = keyOf(Area::States, number);
    key.indices[0] = owner;
    Wire* const variable = m_body.known(key, [&] {
        return Declaration{.area = Area::States,
                           .owner = static_cast<std::uint32_t>(owner),
                           .meaning = Meaning::State,
                           .label = "instance_",
                           .sort = TextSort::StateMachineInstance,
                           .id = number};
    });
    if (state) {
        m_body.changeNumber(variable, m_writer.numberOf(TextSort::State, machine, *state) & 0xFFFFFFFF);
    } else {
        m_writer.lose("state transitions that are not defined");
        m_body.changeToUnknown(variable);
    }
}

} // namespace Quorvex
