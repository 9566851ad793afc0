#include "quorvex/export/TrackModel.h"

#include "quorvex/format/Digits.h"

#include <optional>

namespace Quorvex {

namespace {

/// The states of lines as text, the highest line first; x: not valid.
std::string linesText(const CSignal& packet, const CSignalMask* lines, std::optional<std::uint64_t>& number) {
    const CSignalMask& value = packet.SignalValue();
    const CSignalMask& valid = packet.SignalMask();
    std::string text;
    number = 0;
    for (unsigned i = lines ? lines->bits() : value.bits(); i-- > 0;) {
        if (lines && !lines->test(i))
            continue;
        const bool isValid = i < value.bits() && i < valid.bits() && valid.test(i);
        text += !isValid ? 'x' : value.test(i) ? '1' : '0';
        number = number && isValid ? std::optional(*number << 1 | unsigned{value.test(i)}) : std::nullopt;
    }
    if (text.size() > 64)
        number.reset();
    return text;
}

} // namespace

bool CTrackWriter::Model::show(const CPacket& packet, std::uint64_t time) {
    m_time = time;
    bool isShown = false;
    const bool hasCase = visitKind(
        packet, [&](const auto& kind) requires requires { this->take(kind); } { isShown = take(kind); });
    return hasCase ? isShown : takeOther(packet);
}

void CTrackWriter::Model::endOf(unsigned process) {
    for (auto& [key, thread] : m_threads)
        thread.hasEnded = thread.hasEnded || thread.of == process;
    m_calls = nullptr;
}

void CTrackWriter::Model::end(std::uint64_t time) {
    m_time = time;
    std::map<std::uint32_t, std::pair<Stack*, std::uint64_t>> stacks;
    std::map<std::uint32_t, Core*> cores;
    std::map<std::uint32_t, State*> states;
    for (auto& [key, thread] : m_threads) {
        for (Stack& calls : thread.calls)
            stacks[calls.track] = {&calls, thread.last};
    }
    for (auto& [number, core] : m_cores) {
        for (Stack* stack : {&core.processes, &core.interrupts})
            stacks[stack->track] = {stack, core.last};
        cores[number] = &core;
    }
    for (auto& [key, state] : m_states)
        states[state.track] = &state;
    for (const auto& [track, its] : stacks)
        endAll(*its.first, its.second, true);
    for (const auto& [number, core] : cores)
        endRun(*core);
    for (const auto& [track, state] : states)
        endState(*state, true);
}

bool CTrackWriter::Model::take(const CSignal& packet) {
    if (!m_writer.m_wishes.values)
        return false;
    const auto show = [&](std::uint32_t track, const CSignalMask* lines) {
        std::optional<std::uint64_t> number;
        const std::string text = linesText(packet, lines, number);
        if (!text.empty() && number)
            valueNote(track, *number);
        else if (!text.empty())
            valueNote(track, text);
    };
    const auto defined = m_signals.find({packet.HWCtx(), packet.Master()});
    if (defined == m_signals.end() || defined->second.empty())
        show(m_names.trackOf(Sort::Signal, TextSort::None, 0,
                             "lines " + std::to_string(packet.HWCtx()) + "." + std::to_string(packet.Master())),
             nullptr);
    else
        for (const DefinedSignal& one : defined->second)
            show(m_names.trackOf(Sort::Signal, TextSort::Signal, one.id, ""), &one.lines);
    return true;
}

bool CTrackWriter::Model::take(const CTransition& packet) {
    const auto target =
        m_targets.find(m_writer.numberOf(TextSort::Transition, packet.StateMachine(), packet.TransitionId()));
    State& state = stateOf(packet.StateMachine(), packet.StateMachineInstance());
    if (target != m_targets.end()) {
        goTo(state, packet.StateMachine(), target->second, packet);
    } else {
        m_writer.lose(kNoTransition);
        endState(state);
    }
    return true;
}

bool CTrackWriter::Model::takeOther(const CPacket& packet) {
    const tagTCode code = packet.TraceCode();
    if (factsOf(code).role != Role::Happening)
        return false;
    if (code == CharString && wholeTextOf(packet).empty())
        return true;
    const auto* core = contextOf<CCoreContext>(packet);
    if (core && code != TraceBroken) // which tells what ran before it
        run(*core);
    if (!m_writer.m_wishes.instants)
        return false;
    if (code == CharString)
        return instant(messages(), kNoLabel, packet, true);
    const bool isBus = contextOf<CBusContext>(packet) != nullptr;
    const std::uint32_t track = core ? trackOf(callsOf(*core))
                                     : m_names.trackOf(Sort::Other, TextSort::None, isBus, isBus ? "buses" : "system");
    return instant(track, kind(code), packet, core != nullptr);
}

void CTrackWriter::Model::endRun(Core& core) {
    if (!core.thread)
        return;
    // Only of cores and threads that are known it is told.
    if (core.thread->label != kNone && !isUnknown(FieldMeaning::Context, core.number)) {
        if (core.track == kNone)
            core.track = m_names.addTrack(Sort::CoreThreads, core.number);
        m_notes.slice(Type::Begin, core.track, core.thread->label, core.since);
        m_notes.slice(Type::End, core.track, core.thread->label, core.last);
    }
    core.thread->core = nullptr;
    core.thread = nullptr;
}

CTrackWriter::Model::Core& CTrackWriter::Model::coreOf(std::uint32_t number) {
    return m_cores.findOrMake(number, [number] { return Core{.number = number}; });
}

CTrackWriter::Model::Thread& CTrackWriter::Model::threadOf(std::uint32_t number, std::uint32_t core) {
    // Of a thread that is not known, what runs on a core is taken for one.
    const bool isKnown = !isUnknown(FieldMeaning::Context, number);
    return m_threads.findOrMake(isKnown ? number : std::uint64_t{1} << 32 | core, [&] {
        return Thread{.number = isKnown ? number : core,
                      .label = isKnown ? m_names.labelOf({LabelKey::Of::Thread, {}, number}) : kNone,
                      .calls = {}};
    });
}

CTrackWriter::Model::Stack& CTrackWriter::Model::callsOf(Thread& thread, const CallStack<std::uint32_t>& processes) {
    const std::uint32_t process = processes.empty() ? kNone : processes.back();
    const auto known = std::ranges::find(thread.calls, process, &Stack::process);
    if (known != thread.calls.end())
        return *known;
    return thread.calls.emplace_back(
        Stack{.sort = Sort::Thread, .number = thread.number, .isGrouped = thread.label != kNone, .process = process});
}

bool CTrackWriter::Model::step(const CCoreContext& context, std::uint32_t id, bool isEntered) {
    run(context);
    Stack& stack = m_core->processes;
    const std::uint32_t label = m_names.labelOf(TextSort::Process, m_writer.numberOf(TextSort::Process, id));
    m_calls = nullptr;
    if (isEntered)
        enter(stack, label);
    return isEntered || leave(stack, label) || lostLeave();
}

void CTrackWriter::Model::endAll(Stack& stack, std::uint64_t time, bool isSupplied) {
    for (; !stack.entered.empty(); stack.entered.pop())
        m_notes.slice(Type::End, stack.track, stack.entered.back(), time, isSupplied);
}

CTrackWriter::Model::State& CTrackWriter::Model::stateOf(std::uint32_t machine, std::uint32_t instance) {
    const std::uint64_t number = m_writer.numberOf(TextSort::StateMachineInstance, machine, instance);
    return m_states.findOrMake(number, [&] {
        return State{number, m_writer.numberOf(TextSort::StateMachine, machine)};
    });
}

void CTrackWriter::Model::goTo(State& state, std::uint32_t machine, std::uint32_t target, const CPacket& packet) {
    endState(state);
    if (state.track == kNone)
        state.track = m_names.addStates(state.number, state.machine);
    state.label = m_names.labelOf(TextSort::State, m_writer.numberOf(TextSort::State, machine, target));
    addFields(packet, true);
    m_notes.slice(Type::Begin, state.track, state.label, m_time);
}

bool CTrackWriter::Model::count(const CCounterValueBase& packet, const CounterCell& cell) {
    run(packet);
    if (!m_writer.m_wishes.values)
        return false;
    const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
    ValueKey key{.sort = std::uint8_t(Sort::Counter), .number = number};
    const auto suffix = [&] { return cell.text("[", "]"); };
    const std::uint32_t track = cell.tell(key) ? m_names.trackOf(key, TextSort::Counter, suffix)
                                               : m_names.trackOf(Sort::Counter, TextSort::Counter, number, suffix());
    m_writer.counterSort(number).note(packet.CntrVal().u64);
    m_notes.value(track, teller(track), m_time, packet.CntrVal().u64);
    return true;
}

bool CTrackWriter::Model::value(std::uint32_t track, const std::uint8_t* bytes, unsigned count) {
    std::uint64_t number = 0;
    for (unsigned i = 0; i < count && i < sizeof number; ++i)
        number |= std::uint64_t{bytes[i]} << 8 * i;
    if (count == 0)
        m_writer.lose(kNoValue);
    else if (count <= sizeof number)
        valueNote(track, number);
    else
        valueNote(track, hexNumber(bytes, count));
    return true;
}

bool CTrackWriter::Model::instant(std::uint32_t track, std::uint32_t label, const CPacket& packet, bool isPlaced) {
    if (label == kNoLabel)
        m_notes.setName(wholeTextOf(packet));
    addFields(packet, isPlaced);
    m_notes.instant(track, label, m_time);
    return true;
}

void CTrackWriter::Model::addFields(const CPacket& packet, bool isPlaced) {
    eachNumber(packet, [&](const NumberField& field) {
        const Reference* reference = field.meaning == FieldMeaning::Id ? referenceOf(field.name) : nullptr;
        const bool isSubject = reference && reference->isSubject && reference->sort != TextSort::Transition;
        const bool isSaid =
            isSubject || field.meaning == FieldMeaning::Tick || (isPlaced && field.meaning == FieldMeaning::Context);
        if (isSaid || !field.isKnown)
            return;
        const FieldLook look = factsOf(field.meaning).look;
        const bool isBytes = field.meaning == FieldMeaning::Bytes || field.bytes.size() > sizeof field.value;
        if (isBytes) {
            m_notes.addField(field.name, hexNumber(field.bytes));
        } else if (look == FieldLook::Hexadecimal || look == FieldLook::Address) {
            char digits[2 + 16];
            const bool isLong = look == FieldLook::Address;
            const char* const end = isLong ? putHexValue(digits, field.value)
                                           : putHexValue(digits, static_cast<std::uint32_t>(field.value));
            m_notes.addField(field.name, {digits, static_cast<std::size_t>(end - digits)});
        } else {
            m_notes.addField(field.name, field.isSigned ? Form::Signed : Form::Unsigned, field.value);
        }
    });
}

} // namespace Quorvex
