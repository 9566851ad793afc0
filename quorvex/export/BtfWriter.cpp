#include "quorvex/export/BtfWriter.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/export/CounterCell.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <chrono>
#include <concepts>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace Quorvex {

namespace {

constexpr std::uint64_t kUnitsPerSecond = 1'000'000'000;
constexpr std::size_t kMaxFunctions = 4096;
constexpr std::size_t kMaxInterrupts = 256;
constexpr std::size_t kMaxProcesses = 256;

constexpr char kSupplied[] = "events that were missing and supplied";
constexpr char kNoEnter[] = "leaves without an enter";
constexpr char kDeepFunctions[] = "functions nested too deep";
constexpr char kDeepInterrupts[] = "interrupts nested too deep";
constexpr char kDeepProcesses[] = "processes nested too deep";

enum class Type : std::uint8_t { Core, Task, Interrupt, Runnable, Signal, Stimulus, Simulation };

/// What differs between the versions of the format.
struct Version {
    std::string_view number;
    std::string_view interrupt; ///< the type of interrupts
    bool hasSimulation;         ///< which triggers stimuli; without it they trigger themselves
    bool hasTables;             ///< for types and entities; without them, each has a line
};
constexpr Version kVersions[] = {
    {"2.1.0", "ISR", true, true}, {"2.1.5", "I", true, true}, {"2.2.0", "I", false, false}};
static_assert(std::ranges::equal(kVersions, CBtfWriter::kVersions, {}, &Version::number));

const Version& versionOf(std::string_view number) {
    const auto* version = std::ranges::find(kVersions, number, &Version::number);
    return version != std::end(kVersions) ? *version : kVersions[0];
}

std::string_view nameOf(Type type, const Version& version) {
    constexpr std::string_view kNames[] = {"C", "T", "", "R", "SIG", "STI", "SIM"};
    return type == Type::Interrupt ? version.interrupt : kNames[unsigned(type)];
}

/// Whatever has a name in the file. Entities stay where they are in memory.
struct Entity {
    std::string base; ///< its name, before it was made legal and one of its own
    std::uint64_t number;
    Type type;
    std::string name = {};
    std::string source = {};        ///< as it stands in lines: name and commas
    std::string lastSource = {};    ///< the same with the instance that was the source of a line last; empty: none was
    std::uint64_t lastInstance = 0; ///< that one
    std::string target = {};        ///< type, name and commas
    Entity* stimulus = nullptr;     ///< of tasks and interrupts
    CounterSort* counter = nullptr; ///< of the type of a counter
    std::uint64_t occurrences = 0;  ///< so far; the next one gets that number
};

/// A function that has been entered.
struct Frame {
    Entity* runnable;
    std::uint64_t instance;
};

struct Core;

/// A task, again and again, or one occurrence of an interrupt.
struct Process {
    enum class State : std::uint8_t { Terminated, Ready, Running };

    explicit Process(Entity& of) : entity(&of) {}

    Entity* entity;
    std::optional<std::uint32_t> process; ///< of a task in a process, its number
    ThreadInputs inputs = {};
    State state = State::Terminated;
    std::uint64_t instance = 0;
    CallStack<Frame> stack{kMaxFunctions};
    Core* core = nullptr; ///< whose task it is
};

/// Running on a core is the innermost interrupt, else the task; everything else is not.
struct Core {
    explicit Core(Entity& of) : entity(&of) {}

    Process* running() { return interrupts.empty() ? task : &interrupts.back(); }

    Entity* entity;
    Process* task = nullptr;
    CallStack<std::uint32_t> processes{kMaxProcesses}; ///< that are entered
    CallStack<Process> interrupts{kMaxInterrupts};
};

void append(std::string& to, std::uint64_t number) {
    char digits[kMostDigits];
    to.append(digits, putDecimal(digits, number));
}

/// A value whose lowest byte comes first.
void append(std::string& to, const std::uint8_t* bytes, unsigned count) {
    std::uint64_t number = 0;
    for (unsigned i = 0; i < count && i < sizeof number; ++i)
        number |= std::uint64_t{bytes[i]} << 8 * i;
    if (count == 0)
        to += "unknown";
    else if (count <= sizeof number)
        append(to, number);
    else
        to += hexNumber(bytes, count);
}

std::string legalName(std::string name) {
    std::ranges::replace_if(
        name, [](char c) { return c <= ' ' || c > '~' || c == ','; }, '_');
    if (name.starts_with('#'))
        name[0] = '_';
    return name;
}

/// A time in nanoseconds since 1970, as 2026-08-22T10:15:00Z.
std::string dateOf(std::int64_t nanoseconds) {
    using namespace std::chrono;
    const sys_seconds time{floor<seconds>(std::chrono::nanoseconds(nanoseconds))};
    const sys_days day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    std::string text;
    const auto put = [&text](std::int64_t number, std::size_t digits, char end) {
        const std::string decimal = std::to_string(number);
        text.append(digits > decimal.size() ? digits - decimal.size() : 0, '0').append(decimal).push_back(end);
    };
    put(int{date.year()}, 4, '-');
    put(unsigned{date.month()}, 2, '-');
    put(unsigned{date.day()}, 2, 'T');
    put(clock.hours().count(), 2, ':');
    put(clock.minutes().count(), 2, ':');
    put(clock.seconds().count(), 2, 'Z');
    return text;
}

} // namespace

/// What runs where. Every change of it is a line of the body.
class CBtfWriter::Model {
public:
    Model(CBtfWriter& writer, const Version& version) : m_writer(writer), m_version(version) {
        if (version.hasSimulation)
            m_simulation = &entity(Type::Simulation, "SIM", 0);
    }

    bool show(const CPacket& packet, std::uint64_t time) {
        setTime(time);
        const bool isShown = visitKind(
            packet, [this](const auto& kind) requires requires { this->take(kind); } { take(kind); });
        const CCoreContext* place = isShown ? nullptr : placeOf(packet);
        if (place)
            run(*place);
        return isShown;
    }

    /// What runs in a process ends.
    void endOf(unsigned input, std::uint64_t time) {
        setTime(time);
        for (Process* task : m_tasks) {
            if (!task->inputs.end(input))
                continue;
            if (task->state == Process::State::Running)
                terminate(*task->core, *task);
            undefine(*task);
        }
    }
    void end(std::uint64_t time) {
        setTime(time);
        for (const auto& [number, thread] : m_threads) // which are known by other names now, perhaps
            renameTask(*thread.entity, nameOfThread(number));
        std::map<std::uint32_t, Core*> cores;
        for (auto& [number, core] : m_cores)
            cores.emplace(number, &core);
        for (auto& [number, core] : cores) {
            if (Process* process = core->running())
                terminate(*core, *process);
        }
    }

    /// A line with the names and values that are right in the end.
    void fixLine(std::string_view line, std::string& to) const {
        constexpr unsigned kSource = 1, kTarget = 4, kNote = 7;
        const Entity* target = nullptr;
        line.remove_suffix(1);
        for (unsigned column = 0;; ++column) {
            const std::size_t comma = line.find(',');
            const std::string_view text = line.substr(0, comma);
            const auto former = column == kSource || column == kTarget ? m_named.find(text) : m_named.end();
            if (former != m_named.end())
                to += former->second->name;
            else if (column == kNote && target && target->counter)
                appendCounter(to, counterOf(text), target->counter->type());
            else
                to += text;
            if (column == kTarget && former != m_named.end())
                target = former->second;
            to += comma == std::string_view::npos ? '\n' : ',';
            if (comma == std::string_view::npos)
                return;
            line.remove_prefix(comma + 1);
        }
    }

    const std::deque<Entity>& entities() const { return m_entities; }
    /// Of the last packet, in ticks.
    std::uint64_t time() const { return m_time; }

private:
    void take(const CHWExceptionEnter& packet) { enterInterrupt(coreOf(packet.HWCtx()), packet.ExceptionId()); }
    void take(const CHWExceptionLeave& packet) { leaveInterrupt(coreOf(packet.HWCtx()), packet.ExceptionId()); }
    void take(const CProcessEnter& packet) {
        Core& core = coreOf(packet.HWCtx());
        const std::uint32_t number = m_writer.numberOf(TextSort::Process, packet.ProcId());
        if (!core.processes.enter([number] { return number; }))
            m_writer.lose(kDeepProcesses);
        run(packet);
    }
    /// A job of a process ends when it is left with no function open.
    void take(const CProcessLeave& packet) {
        Core& core = coreOf(packet.HWCtx());
        const std::uint32_t number = m_writer.numberOf(TextSort::Process, packet.ProcId());
        const auto left = core.processes.leave([number](std::uint32_t entered) { return entered == number; });
        if (!left || *left == 0)
            return m_writer.lose(left ? kDeepProcesses : kNoEnter);
        supplied(*left - 1);
        for (std::size_t count = *left; count > 0; --count)
            core.processes.pop();
        Process* const task = core.task;
        if (task && task->process == number && core.interrupts.empty() && task->stack.empty()) {
            terminate(core, *task);
            detach(*task);
        }
        if (core.processes.empty())
            assign(core, nullptr);
        else
            run(packet);
    }
    void take(const CProcessUndefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Process, packet.ProcId());
        for (Process* task : m_processes[number])
            undefine(*task, &coreOf(packet.HWCtx()));
        for (auto& [coreNumber, core] : m_cores) {
            while (!core.processes.empty() && core.processes.back() == number)
                core.processes.pop();
        }
    }
    /// Of that kind only: others would convert to it, as it is made of a context alone.
    void take(const std::same_as<CTraceBroken> auto& packet) {
        m_writer.lose(kGaps);
        for (auto& [number, core] : m_cores) {
            if (!m_writer.isOneProcess() && number != packet.HWCtx())
                continue;
            leaveInterrupts(core, core.interrupts.size());
            core.interrupts.forgetHidden();
            core.processes = CallStack<std::uint32_t>(kMaxProcesses);
            if (core.task)
                undefine(*core.task);
        }
        for (Process* task : m_tasks) {
            if (m_writer.isOneProcess() || task->inputs.isLast(m_writer.process()))
                undefine(*task);
        }
    }
    void take(const CFunctionDefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Function, packet.FuncId());
        if (Entity* const* function = m_functions.find(number))
            rename(**function, given(TextSort::Function, number, "function_"));
    }
    void take(const CVariableDefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Variable, packet.VarId());
        if (Entity* const* variable = m_variables.find(number))
            rename(**variable, given(TextSort::Variable, number, "variable_"));
    }
    void take(const CCounterDefine& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
        if (const auto cells = m_counters.find(number); cells != m_counters.end()) {
            for (const auto& [cell, entity] : cells->second)
                rename(*entity, given(TextSort::Counter, number, "counter_") + cell);
        }
    }
    void take(const CProcessDefine& packet) { nameTasks(m_writer.numberOf(TextSort::Process, packet.ProcId())); }
    void take(const CFunctionEnter& packet) {
        Process& process = run(packet);
        if (packet.TgtFuncIdIsValid())
            enterFunction(process, packet.TgtFuncId());
        else
            m_writer.lose(kNoFunction);
    }
    void take(const CFunctionLeave& packet) {
        Entity* const* function = m_functions.find(m_writer.numberOf(TextSort::Function, packet.TgtFuncId()));
        leaveFunction(run(packet), function ? *function : nullptr);
    }
    void take(const CVariableRead& packet) { access(packet, "read"); }
    void take(const CVariableWrite& packet) { access(packet, "write"); }
    void take(const CounterPacket auto& packet) { count(packet, CounterCell(packet)); }
    void take(const CCounterValueVar& packet) {
        const TVarCounter_t& value = packet.CntrVal();
        m_note.clear();
        append(m_note, value.data(), value.Length());
        const Process& process = run(packet);
        const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
        signal(process, counterOf(number, CounterCell::textOf(packet, "[", "]"), true), "write");
    }

    template <class Access> void access(const Access& packet, std::string_view event) {
        m_note.clear();
        append(m_note, packet.VarData().data(), packet.VarLen());
        const Process& process = run(packet);
        signal(process, variableOf(packet.VarId()), event);
    }
    void count(const CCounterValueBase& packet, const CounterCell& cell) {
        const Process& process = run(packet);
        const std::uint32_t number = m_writer.numberOf(TextSort::Counter, packet.CntrId());
        const auto find = [&] { return &counterOf(number, cell.text("[", "]"), false); };
        ValueKey key{.number = number};
        Entity& counter = cell.tell(key) ? *m_cells.findOrMake(key, find) : *find();
        if (counter.counter->note(packet.CntrVal().u64))
            m_writer.fixBodySoFar();
        m_note.clear();
        appendCounter(m_note, packet.CntrVal().u64, counter.counter->type());
        signal(process, counter, "write");
    }

    /// What runs on the core, given that the packet has happened there. Inside an interrupt, the software context tells
    /// which task goes on after it.
    Process& run(const CCoreContext& context) {
        Core& core = coreOf(context.HWCtx());
        Process& task =
            core.processes.empty() ? threadOf(context.SWCtx()) : taskOf(core.processes.back(), context.SWCtx());
        task.inputs.tell(m_writer.process());
        assign(core, &task);
        return *core.running();
    }

    /// Makes a task, or none for null, the one of the core, and takes it from any other core.
    void assign(Core& core, Process* task) {
        if (core.task == task)
            return;
        if (task && task->core)
            assign(*task->core, nullptr);
        if (core.task) {
            if (core.interrupts.empty())
                preempt(core, *core.task);
            detach(*core.task);
        }
        if (!task)
            return;
        core.task = task;
        task->core = &core;
        if (core.interrupts.empty())
            dispatch(core, *task);
    }
    void detach(Process& task) {
        task.core->task = nullptr;
        task.core = nullptr;
    }

    /// Ends a task for good. One that does not run must do so for a moment to terminate: on its core, or that one, or
    /// any.
    void undefine(Process& task, Core* otherwise = nullptr) {
        if (!otherwise)
            otherwise = &m_cores.begin()->second;
        Core& core = task.core ? *task.core : *otherwise;
        if (task.state == Process::State::Running) {
            supplied(task.stack.size());
            terminate(core, task);
        } else if (task.state == Process::State::Ready) {
            Process* const other = core.running();
            if (other) {
                supplied(other->stack.size() + 1);
                preempt(core, *other);
            }
            supplied(2 * task.stack.size() + 1);
            dispatch(core, task);
            terminate(core, task);
            if (other) {
                supplied(other->stack.size() + 1);
                dispatch(core, *other);
            }
        }
        if (task.core)
            detach(task);
    }

    void enterInterrupt(Core& core, std::uint32_t number) {
        const auto interrupt = [&] {
            if (Process* process = core.running())
                preempt(core, *process);
            return Process(interruptOf(number));
        };
        if (core.interrupts.enter(interrupt))
            dispatch(core, core.interrupts.back());
        else
            m_writer.lose(kDeepInterrupts);
    }
    void leaveInterrupt(Core& core, std::uint32_t number) {
        Entity* const* entity = m_interrupts.find(number);
        const auto left =
            core.interrupts.leave([entity](const Process& process) { return entity && process.entity == *entity; });
        if (!left || *left == 0)
            return m_writer.lose(left ? kDeepInterrupts : kNoEnter);
        supplied(*left - 1);
        leaveInterrupts(core, *left);
    }
    void leaveInterrupts(Core& core, std::size_t count) {
        for (; count > 0; --count) {
            supplied(core.interrupts.back().stack.size());
            terminate(core, core.interrupts.back());
            core.interrupts.pop();
            if (Process* process = core.running())
                dispatch(core, *process);
        }
    }

    void enterFunction(Process& process, std::uint32_t id) {
        const auto frame = [&] {
            Entity& function = functionOf(id);
            return Frame{&function, function.occurrences++};
        };
        if (process.stack.enter(frame))
            line(process, process.stack.back(), "start");
        else
            m_writer.lose(kDeepFunctions);
    }
    /// Null for a function that has never been entered.
    void leaveFunction(Process& process, const Entity* function) {
        const auto left = process.stack.leave([function](const Frame& frame) { return frame.runnable == function; });
        if (!left || *left == 0)
            return m_writer.lose(left ? kDeepFunctions : kNoEnter);
        supplied(*left - 1);
        leave(process, *left);
    }
    void leave(Process& process, std::size_t count) {
        for (; count > 0; --count) {
            line(process, process.stack.back(), "terminate");
            process.stack.pop();
        }
    }

    /// Starts or resumes what does not run on a core that is free.
    void dispatch(Core& core, Process& process) {
        const bool starts = process.state == Process::State::Terminated;
        if (starts) {
            Entity& stimulus = *process.entity->stimulus;
            process.instance = process.entity->occurrences++;
            trigger(stimulus);
            line(stimulus, stimulus.occurrences++, *process.entity, process.instance, "activate");
        }
        process.state = Process::State::Running;
        line(*core.entity, 0, *process.entity, process.instance, starts ? "start" : "resume");
        for (const Frame& frame : process.stack.entries())
            line(process, frame, "resume");
    }
    void preempt(Core& core, Process& process) {
        const std::vector<Frame>& frames = process.stack.entries();
        for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame)
            line(process, *frame, "suspend");
        process.state = Process::State::Ready;
        line(*core.entity, 0, *process.entity, process.instance, "preempt");
    }
    void terminate(Core& core, Process& process) {
        leave(process, process.stack.size());
        process.stack.forgetHidden();
        process.state = Process::State::Terminated;
        line(*core.entity, 0, *process.entity, process.instance, "terminate");
    }

    void setTime(std::uint64_t time) {
        if (time == m_time && m_writer.frequency() == m_frequency && m_timeSize > 0)
            return;
        m_time = time;
        m_frequency = m_writer.frequency();
        m_timeSize = static_cast<unsigned>(m_writer.putTime(m_timeText, time, kUnitsPerSecond) - m_timeText);
    }

    /// The next occurrence of a stimulus, which has the number -1 where the simulation is its source.
    void trigger(Entity& stimulus) {
        if (!m_simulation)
            return line(stimulus, stimulus.occurrences, stimulus, stimulus.occurrences, "trigger");
        const std::string text = std::string(m_timeText, m_timeSize) + m_simulation->source + "-1" + stimulus.target +
                                 std::to_string(stimulus.occurrences) + ",trigger\n";
        m_writer.bodyEnds(std::ranges::copy(text, m_writer.bodyRoom(text.size())).out);
    }
    void line(Entity& source, std::uint64_t sourceInstance, const Entity& target, std::uint64_t instance,
              std::string_view event, std::string_view note = {}) {
        if (source.lastInstance != sourceInstance || source.lastSource.empty()) {
            source.lastInstance = sourceInstance;
            source.lastSource = source.source;
            append(source.lastSource, sourceInstance);
        }
        char* to = m_writer.bodyRoom(sizeof m_timeText + source.lastSource.size() + target.target.size() + kMostDigits +
                                     event.size() + note.size() + 3);
        const auto put = [&to](std::string_view text) { to += text.copy(to, text.size()); };
        std::memcpy(to, m_timeText, sizeof m_timeText);
        to += m_timeSize;
        put(source.lastSource);
        put(target.target);
        to = putDecimal(to, instance);
        *to++ = ',';
        put(event);
        if (!note.empty()) {
            *to++ = ',';
            put(note);
        }
        *to++ = '\n';
        m_writer.bodyEnds(to);
    }
    void line(const Process& process, const Frame& frame, std::string_view event) {
        line(*process.entity, process.instance, *frame.runnable, frame.instance, event);
    }
    /// With the value in m_note.
    void signal(const Process& process, const Entity& entity, std::string_view event) {
        line(*process.entity, process.instance, entity, 0, event, m_note);
    }
    void supplied(std::size_t lines) {
        for (; lines > 0; --lines)
            m_writer.lose(kSupplied);
    }

    Core& coreOf(std::uint32_t number) {
        return m_cores.findOrMake(number,
                                  [&] { return Core(entity(Type::Core, "Core_" + std::to_string(number), number)); });
    }
    Process& threadOf(std::uint32_t number) {
        return task(m_threads, number, [&] { return Process(activated(Type::Task, nameOfThread(number), number)); });
    }
    /// A thread of a process.
    Process& taskOf(std::uint32_t process, std::uint32_t thread) {
        return task(m_processTasks, CTraceNames::pair(process, thread), [&] {
            std::vector<Process*>& tasks = m_processes[process];
            Process made(activated(Type::Task, nameOfTask(process, thread, !tasks.empty()), thread));
            made.process = process;
            return made;
        });
    }
    template <class Key, class Make> Process& task(Directory<Key, Process>& tasks, Key key, Make make) {
        if (Process* known = tasks.find(key))
            return *known;
        Process& made = tasks.findOrMake(key, make);
        m_tasks.push_back(&made);
        if (made.process) {
            std::vector<Process*>& others = m_processes[*made.process];
            others.push_back(&made);
            if (others.size() == 2)
                nameTasks(*made.process);
        }
        return made;
    }
    std::string nameOfThread(std::uint32_t number) const {
        const std::string title = m_writer.names().threadTitle(number);
        return "TASK_" + (title.empty() ? "" : title + "_") + std::to_string(number);
    }
    std::string nameOfTask(std::uint32_t process, std::uint64_t thread, bool isOneOfSome) const {
        return "TASK_" + given(TextSort::Process, process, "process_") +
               (isOneOfSome ? "_" + std::to_string(thread) : "");
    }
    /// Gives the tasks of a process their names: they tell the thread where there are several.
    void nameTasks(std::uint32_t process) {
        const std::vector<Process*>& tasks = m_processes[process];
        for (const Process* task : tasks)
            renameTask(*task->entity, nameOfTask(process, task->entity->number, tasks.size() > 1));
    }
    void renameTask(Entity& entity, std::string base) {
        rename(entity, std::move(base));
        rename(*entity.stimulus, "STI_" + entity.name);
    }
    Entity& interruptOf(std::uint32_t number) {
        return *m_interrupts.findOrMake(
            number, [&] { return &activated(Type::Interrupt, "TASK_ISR_" + std::to_string(number), number); });
    }
    Entity& functionOf(std::uint32_t id) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Function, id);
        return *m_functions.findOrMake(
            number, [&] { return &entity(Type::Runnable, given(TextSort::Function, number, "function_"), number); });
    }
    Entity& variableOf(std::uint32_t id) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Variable, id);
        return *m_variables.findOrMake(
            number, [&] { return &entity(Type::Signal, given(TextSort::Variable, number, "variable_"), number); });
    }
    /// The cell of a counter with that text. Values of any number of bytes are not taken for doubles.
    Entity& counterOf(std::uint32_t number, const std::string& text, bool isWide) {
        Entity*& cell = (isWide ? m_wideCounters : m_counters)[number][text];
        if (!cell) {
            cell = &entity(Type::Signal, given(TextSort::Counter, number, "counter_") + text, number);
            cell->counter = isWide ? nullptr : &m_writer.counterSort(number);
        }
        return *cell;
    }
    static std::uint64_t counterOf(std::string_view text) { return Quorvex::counterOf(text); }

    std::string given(TextSort sort, std::uint32_t number, const char* otherwise) const {
        const std::string& name = m_writer.names().name(sort, number);
        return name.empty() ? otherwise + std::to_string(m_writer.names().idOf(sort, number)) : name;
    }
    Entity& entity(Type type, std::string name, std::uint32_t number) {
        Entity& added = m_entities.emplace_back(Entity{.base = std::move(name), .number = number, .type = type});
        call(added);
        return added;
    }
    Entity& activated(Type type, std::string name, std::uint32_t number) {
        Entity& process = entity(type, std::move(name), number);
        process.stimulus = &entity(Type::Stimulus, "STI_" + process.name, number);
        return process;
    }
    /// Gives an entity the name that follows from its base.
    void call(Entity& entity) {
        std::string name = legalName(entity.base);
        while (!m_named.emplace(name, &entity).second)
            name += "_" + std::to_string(entity.number);
        entity.source = "," + name + ",";
        entity.lastSource.clear();
        entity.target.assign(",").append(nameOf(entity.type, m_version)).append(entity.source);
        entity.name = std::move(name);
    }
    /// It is called otherwise than has been known so far.
    void rename(Entity& entity, std::string base) {
        if (entity.base == base)
            return;
        entity.base = std::move(base);
        call(entity);
        m_writer.fixBodySoFar();
    }

    CBtfWriter& m_writer;
    const Version& m_version;
    Entity* m_simulation = nullptr; ///< where the version has one
    std::uint64_t m_time = 0;
    std::uint64_t m_frequency = 0;                       ///< of the clock, when the next two were made
    char m_timeText[kMostDigits];                        ///< the same as it stands in lines
    unsigned m_timeSize = 0;                             ///< 0: not yet
    std::deque<Entity> m_entities;                       ///< as they appeared
    std::map<std::string, Entity*, std::less<>> m_named; ///< by all names that they have, or had
    Directory<std::uint32_t, Core> m_cores;
    Directory<std::uint32_t, Process> m_threads;
    Directory<std::uint64_t, Process> m_processTasks;           ///< by process and thread
    std::vector<Process*> m_tasks;                              ///< of both
    std::map<std::uint32_t, std::vector<Process*>> m_processes; ///< their tasks
    Directory<std::uint32_t, Entity*> m_interrupts;
    Directory<std::uint32_t, Entity*> m_functions;
    Directory<std::uint32_t, Entity*> m_variables;
    using Cells = std::map<std::uint32_t, std::map<std::string, Entity*>>; ///< by number of the counter, then indices
    Cells m_counters;
    Cells m_wideCounters;
    Directory<ValueKey, Entity*> m_cells; ///< those of m_counters that are looked up often
    std::string m_note;                   ///< kept for its memory
};

CBtfWriter::CBtfWriter(std::ostream& out, ViewerOptions options)
    : CViewerWriter(out, {TextSort::Function, TextSort::Process, TextSort::Variable, TextSort::Counter},
                    std::move(options)),
      m_model(platform::makeOwned<Model>(*this, versionOf(this->options().btfVersion))) {}

CBtfWriter::~CBtfWriter() = default;

bool CBtfWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CBtfWriter::endOf(unsigned process, std::uint64_t time) {
    m_model->endOf(process, time);
}

void CBtfWriter::fixLine(std::string_view line, std::string& to) {
    m_model->fixLine(line, to);
}

void CBtfWriter::end(std::uint64_t time) {
    m_model->end(time);
}

bool CBtfWriter::writeFile() {
    const Version& version = versionOf(options().btfVersion);
    std::string head = "#version " + std::string(version.number) + "\n#creator Quorvex (" QUORVEX_VERSION ")\n";
    const auto parameter = [&head](const char* name, std::string value) {
        std::ranges::replace_if(
            value, [](char c) { return c == '\n' || c == '\r'; }, '_');
        if (!value.empty())
            head.append(name).append(value).append("\n");
    };
    if (options().recordedUntil) {
        const std::uint64_t duration = unitsOf(m_model->time(), kUnitsPerSecond);
        parameter("#creationDate ", dateOf(*options().recordedUntil - static_cast<std::int64_t>(duration)));
    }
    if (version.hasTables)
        parameter("#inputFile ", options().inputs);
    head += "#timeScale ns\n";
    const auto table = [&head, &version](std::string_view name, const auto& rows, auto key, auto value) {
        if (version.hasTables)
            head.append("#").append(name).append("Table\n");
        for (std::size_t number = 0; const auto& row : rows) {
            head.append(version.hasTables ? "#-" : "#" + std::string(name) + "Mapping ");
            head.append(key(number++, row)).append(" ").append(value(row)).append("\n");
        }
    };
    const auto byNumber = [](std::size_t number, const auto&) { return std::to_string(number); };
    const auto typeName = [&version](Type type) { return std::string(nameOf(type, version)); };
    std::vector<Type> types{Type::Core, Type::Task, Type::Interrupt, Type::Runnable, Type::Signal, Type::Stimulus};
    if (version.hasSimulation)
        types.push_back(Type::Simulation);
    const auto& entities = m_model->entities();
    table("type", types, byNumber, typeName);
    table("entity", entities, byNumber, [](const Entity& entity) { return entity.name; });
    const auto byType = [&typeName](std::size_t, const Entity& entity) { return typeName(entity.type); };
    table("entityType", entities, byType, [](const Entity& entity) { return entity.name; });
    if (!knowsClock())
        head += "# The clock is not known: a tick counts as 1 ns.\n";
    // A table must not be the end of the file: readers fail on it.
    if (out_size() == 0)
        head += "# The trace holds nothing that can be shown.\n";
    return writeOut(head) && copyBody(0, kUnitsPerSecond);
}

} // namespace Quorvex
