#include "quorvex/export/BtfWriter.h"

#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <vector>

namespace Quorvex {

namespace {

constexpr std::uint64_t kUnitsPerSecond = 1'000'000'000;
constexpr std::size_t kMaxFunctions = 4096;
constexpr std::size_t kMaxInterrupts = 256;

constexpr char kSupplied[] = "events that were missing and supplied";
constexpr char kNoEnter[] = "leaves without an enter";
constexpr char kDeepFunctions[] = "functions nested too deep";
constexpr char kDeepInterrupts[] = "interrupts nested too deep";

constexpr std::string_view kTypes[] = {"C", "T", "I", "R", "SIG", "STI"};
enum class Type : std::uint8_t { Core, Task, Interrupt, Runnable, Signal, Stimulus };

/// Whatever has a name in the file. Entities stay where they are in memory.
struct Entity {
    std::string name;
    Type type;
    std::string source = {};       ///< as it stands in lines: name and commas
    std::string target = {};       ///< type, name and commas
    Entity* stimulus = nullptr;    ///< of tasks and interrupts
    std::uint64_t occurrences = 0; ///< so far; the next one gets that number
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
    bool entered = false; ///< the task is a process, and stays whatever the software context
    CallStack<Process> interrupts{kMaxInterrupts};
};

/// A cell of a counter. Those with more dimensions are told apart by their texts.
struct Cell {
    std::uint64_t number = 0;
    unsigned dimensions = 0;
    std::uint64_t indices[2] = {};

    bool operator==(const Cell&) const = default;
    std::uint64_t hash() const {
        std::uint64_t hash = number << 2 | dimensions;
        for (const std::uint64_t index : indices)
            hash = (hash ^ index) * 0xD6E8FEB86659FD93;
        return hash;
    }
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
    explicit Model(CBtfWriter& writer) : m_writer(writer) {}

    bool show(const CPacket& packet, std::uint64_t time) {
        setTime(time);
        const bool isShown = visitKind(
            packet, [this](const auto& kind) requires requires { this->take(kind); } { take(kind); });
        const CCoreContext* place = isShown ? nullptr : placeOf(packet);
        if (place)
            run(*place);
        return isShown;
    }

    void end(std::uint64_t time) {
        setTime(time);
        std::map<std::uint32_t, Core*> cores;
        for (auto& [number, core] : m_cores)
            cores.emplace(number, &core);
        for (auto& [number, core] : cores) {
            if (Process* process = core->running())
                terminate(*core, *process);
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
        assign(core, &processOf(packet));
        core.entered = true;
    }
    void take(const CProcessLeave& packet) {
        Core& core = coreOf(packet.HWCtx());
        if (core.entered && core.task == knownProcess(packet))
            assign(core, nullptr);
        else
            m_writer.lose(kNoEnter);
    }
    void take(const CProcessUndefine& packet) {
        if (Process* process = knownProcess(packet))
            undefine(coreOf(packet.HWCtx()), *process);
    }
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
    void take(const CCounterValue& packet) { count(packet, nullptr, 0); }
    void take(const CCounterValueDim1& packet) {
        const TCounterIdx_t indices[] = {packet.CntrIdx1()};
        count(packet, indices, 1);
    }
    void take(const CCounterValueDim2& packet) {
        const TCounterIdx_t indices[] = {packet.CntrIdx1(), packet.CntrIdx2()};
        count(packet, indices, 2);
    }
    void take(const CCounterValueDimN& packet) { count(packet, packet.CntrIdx(), packet.CntrDim()); }
    void take(const CCounterValueVar& packet) {
        const TVarCounter_t& value = packet.CntrVal();
        const TVarCounter_t& index = packet.CntrIdx();
        m_cell.clear();
        if (index.Length() > 0) {
            m_cell += '[';
            append(m_cell, index.data(), index.Length());
            m_cell += ']';
        }
        m_note.clear();
        append(m_note, value.data(), value.Length());
        const Process& process = run(packet);
        signal(process, counterOf(m_writer.numberOf(TextSort::Counter, packet.CntrId())), "write");
    }

    template <class Access> void access(const Access& packet, std::string_view event) {
        m_note.clear();
        append(m_note, packet.VarData().data(), packet.VarLen());
        const Process& process = run(packet);
        signal(process, variableOf(packet.VarId()), event);
    }
    void count(const CCounterValueBase& packet, const TCounterIdx_t* indices, unsigned dimensions) {
        m_note.clear();
        append(m_note, packet.CntrVal().u64);
        const Process& process = run(packet);
        Cell cell{m_writer.numberOf(TextSort::Counter, packet.CntrId()), dimensions};
        const bool isCommon = dimensions <= std::size(cell.indices);
        for (unsigned i = 0; isCommon && i < dimensions; ++i)
            cell.indices[i] = indices[i].u64;
        const auto find = [&] {
            m_cell.clear();
            for (unsigned i = 0; i < dimensions; ++i) {
                m_cell += '[';
                append(m_cell, indices[i].u64);
                m_cell += ']';
            }
            return &counterOf(static_cast<std::uint32_t>(cell.number));
        };
        signal(process, isCommon ? *m_cells.findOrMake(cell, find) : *find(), "write");
    }

    /// What runs on the core, given that the packet has happened there. Inside an interrupt, the software context tells
    /// which task goes on after it.
    Process& run(const CCoreContext& context) {
        Core& core = coreOf(context.HWCtx());
        if (!core.entered)
            assign(core, &threadOf(context.SWCtx()));
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
        task.core->entered = false;
        task.core = nullptr;
    }

    /// A task that does not run must do so for a moment to terminate.
    void undefine(Core& core, Process& task) {
        if (task.state == Process::State::Running) {
            supplied(task.stack.size());
            terminate(*task.core, task);
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
        for (std::size_t count = *left; count > 0; --count) {
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
            line(stimulus, stimulus.occurrences, stimulus, stimulus.occurrences, "trigger");
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

    void line(const Entity& source, std::uint64_t sourceInstance, const Entity& target, std::uint64_t instance,
              std::string_view event, std::string_view note = {}) {
        char* to = m_writer.bodyRoom(sizeof m_timeText + source.source.size() + target.target.size() +
                                     std::size_t{2} * kMostDigits + event.size() + note.size() + 4);
        const auto put = [&to](std::string_view text) { to += text.copy(to, text.size()); };
        std::memcpy(to, m_timeText, sizeof m_timeText);
        to += m_timeSize;
        put(source.source);
        to = putDecimal(to, sourceInstance);
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
        return m_threads.findOrMake(
            number, [&] { return Process(activated(Type::Task, "TASK_" + std::to_string(number), number)); });
    }
    Process& processOf(const CProcessBase& packet) {
        const std::uint32_t number = m_writer.numberOf(TextSort::Process, packet.ProcId());
        return m_processes.findOrMake(number, [&] {
            return Process(activated(Type::Task, "TASK_" + given(TextSort::Process, number, "process_"), number));
        });
    }
    Process* knownProcess(const CProcessBase& packet) {
        return m_processes.find(m_writer.numberOf(TextSort::Process, packet.ProcId()));
    }
    Entity& interruptOf(std::uint32_t number) {
        return *m_interrupts.findOrMake(
            number, [&] { return &activated(Type::Interrupt, "ISR_" + std::to_string(number), number); });
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
    /// The cell of a counter that m_cell tells.
    Entity& counterOf(std::uint32_t number) {
        Entity*& cell = m_counters[number][m_cell];
        if (!cell)
            cell = &entity(Type::Signal, given(TextSort::Counter, number, "counter_") + m_cell, number);
        return *cell;
    }

    std::string given(TextSort sort, std::uint32_t number, const char* otherwise) const {
        const std::string& name = m_writer.names().name(sort, number);
        return name.empty() ? otherwise + std::to_string(m_writer.names().idOf(sort, number)) : name;
    }
    Entity& entity(Type type, std::string name, std::uint32_t number) {
        name = legalName(std::move(name));
        while (!m_taken.insert(name).second)
            name += "_" + std::to_string(number);
        Entity& added = m_entities.emplace_back(Entity{.name = std::move(name), .type = type});
        added.source = "," + added.name + ",";
        added.target.append(",").append(kTypes[unsigned(type)]).append(added.source);
        return added;
    }
    Entity& activated(Type type, std::string name, std::uint32_t number) {
        Entity& process = entity(type, std::move(name), number);
        process.stimulus = &entity(Type::Stimulus, "STI_" + process.name, number);
        return process;
    }

    CBtfWriter& m_writer;
    std::uint64_t m_time = 0;
    std::uint64_t m_frequency = 0; ///< of the clock, when the next two were made
    char m_timeText[kMostDigits];  ///< the same as it stands in lines
    unsigned m_timeSize = 0;       ///< 0: not yet
    std::deque<Entity> m_entities; ///< as they appeared
    std::set<std::string> m_taken; ///< their names
    Directory<std::uint32_t, Core> m_cores;
    Directory<std::uint32_t, Process> m_threads;
    Directory<std::uint32_t, Process> m_processes;
    Directory<std::uint32_t, Entity*> m_interrupts;
    Directory<std::uint32_t, Entity*> m_functions;
    Directory<std::uint32_t, Entity*> m_variables;
    std::map<std::uint32_t, std::map<std::string, Entity*>> m_counters; ///< by number, then indices
    Directory<Cell, Entity*> m_cells; ///< those of m_counters that are looked up often
    std::string m_note;               ///< kept for its memory, as the next one
    std::string m_cell;
};

CBtfWriter::CBtfWriter(std::ostream& out, ViewerOptions options)
    : CViewerWriter(out, {TextSort::Function, TextSort::Process, TextSort::Variable, TextSort::Counter},
                    std::move(options)),
      m_model(platform::makeOwned<Model>(*this)) {}

CBtfWriter::~CBtfWriter() = default;

bool CBtfWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CBtfWriter::end(std::uint64_t time) {
    m_model->end(time);
}

bool CBtfWriter::writeFile() {
    std::string head = "#version 2.1.0\n#creator Quorvex (" QUORVEX_VERSION ")\n";
    const auto parameter = [&head](const char* name, std::string value) {
        std::ranges::replace_if(
            value, [](char c) { return c == '\n' || c == '\r'; }, '_');
        if (!value.empty())
            head.append(name).append(value).append("\n");
    };
    if (options().recordedUntil)
        parameter("#creationDate ", dateOf(*options().recordedUntil -
                                           static_cast<std::int64_t>(unitsOf(m_model->time(), kUnitsPerSecond))));
    parameter("#inputFile ", options().inputs);
    head += "#timeScale ns\n#typeTable\n";
    std::size_t row = 0;
    for (const std::string_view type : kTypes)
        head.append("#-").append(std::to_string(row++)).append(" ").append(type).append("\n");
    head += "#entityTable\n";
    row = 0;
    for (const Entity& entity : m_model->entities())
        head.append("#-").append(std::to_string(row++)).append(" ").append(entity.name).append("\n");
    head += "#entityTypeTable\n";
    for (const Entity& entity : m_model->entities())
        head.append("#-").append(kTypes[unsigned(entity.type)]).append(" ").append(entity.name).append("\n");
    // A table must not be the end of the file: readers fail on it.
    if (out_size() == 0)
        head += "# The trace holds nothing that can be shown.\n";
    return writeOut(head) && copyBody(0, kUnitsPerSecond);
}

} // namespace Quorvex
