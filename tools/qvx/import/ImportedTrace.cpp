#include "ImportedTrace.h"

#include "../Output.h"
#include "../TraceInput.h"
#include "../TraceOutput.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Context.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>
#include <queue>
#include <utility>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::uint64_t kOpen = UINT64_MAX;            ///< the end of a call whose end is not known
constexpr std::uint32_t kLast = ~std::uint32_t{0};     ///< the function that was entered last
constexpr std::uint32_t kNoNumber = ~std::uint32_t{0}; ///< of a process or a thread: it gets one that is left over
constexpr std::uint32_t kUnknown = ~std::uint32_t{0};
constexpr std::uint64_t kExactDouble = 1ull << 53;

std::optional<std::uint32_t> numberIn(std::string_view text) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number == ~std::uint32_t{0})
        return std::nullopt;
    return number;
}

CCharStringSequence textOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

} // namespace

/// Something that has happened. A text follows.
struct ImportedTrace::Happening {
    Sort sort;
    Thread thread = 0;      ///< of a packet, what its place is of
    std::uint32_t name = 0; ///< its number
    std::uint32_t core = ~std::uint32_t{0};
    std::uint64_t value = 0; ///< of a counter, a signal, a call's duration, an address
};

std::uint32_t ImportedTrace::Names::operator()(std::string_view name) {
    const auto [at, isNew] = numbers.try_emplace(std::string(name), static_cast<std::uint32_t>(names.size()));
    if (isNew)
        names.push_back(&at->first);
    return at->second;
}

bool ImportedTrace::isProcess(std::uint32_t number) const {
    return std::ranges::any_of(m_processes, [number](const Process& its) { return its.number == number; });
}

std::uint32_t ImportedTrace::process(std::string_view name) {
    const std::uint32_t index = m_processNames(name);
    if (index == m_processes.size()) {
        const std::uint32_t number = numberIn(name).value_or(kNoNumber);
        m_processes.push_back({isProcess(number) ? kNoNumber : number, {}});
    }
    return index;
}

ImportedTrace::Thread ImportedTrace::thread(std::string_view process, std::string_view thread) {
    const std::uint32_t owner = this->process(process);
    std::string key(reinterpret_cast<const char*>(&owner), sizeof owner);
    const Thread index = m_threadNames(key.append(thread));
    if (index == m_threads.size()) {
        const std::uint32_t number = numberIn(thread).value_or(kNoNumber);
        const bool isFree = number != kNoNumber && m_byNumber.try_emplace(number, index).second;
        m_threads.push_back({isFree ? number : kNoNumber, owner, {}});
        if (number == kNoNumber)
            m_threads.back().name = thread;
    }
    return index;
}

void ImportedTrace::numberRest() {
    const auto numberFor = [](std::string_view name, auto isTaken) {
        std::uint32_t number = numberIn(name).value_or(1);
        while (isTaken(number))
            ++number;
        return number;
    };
    for (std::uint32_t i = 0; i < m_processes.size(); ++i) {
        if (m_processes[i].number == kNoNumber)
            m_processes[i].number =
                numberFor(*m_processNames.names[i], [this](std::uint32_t number) { return isProcess(number); });
    }
    for (Thread i = 0; i < m_threads.size(); ++i) {
        if (m_threads[i].number == kNoNumber)
            m_threads[i].number =
                numberFor(std::string_view(*m_threadNames.names[i]).substr(sizeof(std::uint32_t)),
                          [this, i](std::uint32_t number) { return !m_byNumber.try_emplace(number, i).second; });
    }
}

void ImportedTrace::setProcess(Thread thread, std::string_view process) {
    m_threads[thread].process = this->process(process);
}

void ImportedTrace::nameProcess(std::string_view process, std::string_view name) {
    m_processes[this->process(process)].name = name;
}

void ImportedTrace::nameThread(Thread thread, std::string_view name) {
    m_threads[thread].name = name;
}

void ImportedTrace::nameFunction(std::string_view function, std::string_view name) {
    m_functionNames[m_functions(function)] = name;
}

void ImportedTrace::put(std::uint64_t time, std::uint64_t rank, const Happening& what, std::string_view text) {
    if (text.empty()) {
        m_sort.add(time, rank, {reinterpret_cast<const char*>(&what), sizeof what});
        return;
    }
    std::string record(reinterpret_cast<const char*>(&what), sizeof what);
    m_sort.add(time, rank, record.append(text));
}

void ImportedTrace::enter(Thread thread, std::uint64_t time, std::string_view function) {
    put(time, 0, {Sort::Enter, thread, m_functions(function)});
}

void ImportedTrace::leave(Thread thread, std::uint64_t time) {
    put(time, 0, {Sort::Leave, thread, kLast});
}

void ImportedTrace::leave(Thread thread, std::uint64_t time, std::string_view function) {
    put(time, 0, {Sort::Leave, thread, m_functions(function)});
}

void ImportedTrace::call(Thread thread, std::uint64_t time, std::uint64_t duration, std::string_view function) {
    put(time, ~duration, {.sort = Sort::Call, .thread = thread, .name = m_functions(function), .value = duration});
}

void ImportedTrace::run(Thread thread, std::uint64_t time, std::uint32_t core) {
    put(time, 0, {.sort = Sort::Run, .thread = thread, .core = core});
}

void ImportedTrace::stop(Thread thread, std::uint64_t time, std::uint32_t core) {
    put(time, 0, {.sort = Sort::Stop, .thread = thread, .core = core});
}

ImportedTrace::Counter& ImportedTrace::counter(std::uint32_t number) {
    if (number == m_counters.size())
        m_counters.emplace_back();
    return m_counters[number];
}

void ImportedTrace::count(Thread thread, std::uint64_t time, std::string_view counter, std::int64_t value) {
    const std::uint32_t name = m_counterNames(counter);
    this->counter(name);
    put(time, 0, {.sort = Sort::Integer, .thread = thread, .name = name, .value = static_cast<std::uint64_t>(value)});
}

void ImportedTrace::count(Thread thread, std::uint64_t time, std::string_view counter, double value) {
    const std::uint32_t name = m_counterNames(counter);
    this->counter(name).hasFraction = true;
    put(time, 0, {.sort = Sort::Double, .thread = thread, .name = name, .value = std::bit_cast<std::uint64_t>(value)});
}

void ImportedTrace::setUnit(std::string_view counter, std::string_view unit) {
    this->counter(m_counterNames(counter)).unit = unit;
}

void ImportedTrace::happen(Thread thread, std::uint64_t time, std::string_view event, std::uint32_t core,
                           std::uint64_t address) {
    put(time, 0, {Sort::Happen, thread, m_events(event), core, address});
}

void ImportedTrace::signal(std::uint64_t time, std::string_view name, bool value) {
    put(time, 0, {.sort = Sort::Signal, .name = m_signals(name), .value = value});
}

void ImportedTrace::message(std::uint64_t time, std::string_view text) {
    put(time, 0, {Sort::Message}, text);
}

void ImportedTrace::packets(std::uint64_t time, std::string_view bytes) {
    put(time, 0, {.sort = Sort::Packets, .thread = Place::Nothing}, bytes);
}

void ImportedTrace::put(std::uint64_t time, std::uint64_t order, CPacket&& packet, Place place) {
    std::string bytes(packet.StreamSize(), '\0');
    packet.write(bytes.data(), static_cast<unsigned>(bytes.size()));
    put(time, order, {.sort = Sort::Packets, .thread = place.of, .core = place.number}, bytes);
}

void ImportedTrace::runs(std::uint64_t time, std::uint64_t order, std::uint32_t thread, std::uint32_t core) {
    put(time, order, {.sort = Sort::Runs, .thread = thread, .core = core});
}

void ImportedTrace::rests(std::uint64_t time, std::uint64_t order, std::uint32_t thread, std::uint32_t core) {
    put(time, order, {.sort = Sort::Rests, .thread = thread, .core = core});
}

void ImportedTrace::lose(std::string_view reason, std::uint64_t count) {
    auto at = m_losses.find(reason);
    if (at == m_losses.end())
        at = m_losses.emplace(reason, 0).first;
    at->second += count;
}

/// Puts what has happened into packets.
class ImportedTrace::Writing {
public:
    Writing(ImportedTrace& trace, Target& target, bool isPaged, bool isRelative)
        : m_trace(trace),
          m_target(target),
          m_output(target, isPaged, isRelative),
          m_stacks(trace.m_threads.size()),
          m_running(trace.m_threads.size()) {}

    std::uint64_t run() {
        TimeSort& sorted = m_trace.m_sort;
        bool isFirst = true;
        while (sorted.next()) {
            if (std::exchange(isFirst, false))
                begin(m_trace.m_start.value_or(sorted.time()));
            leaveUntil(sorted.time());
            Happening what{};
            std::memcpy(&what, sorted.record().data(), sizeof what);
            m_time = sorted.time();
            show(what, sorted.record().substr(sizeof what));
        }
        if (isFirst)
            begin(m_trace.m_start.value_or(0));
        leaveUntil(kOpen - 1);
        put(new CTraceDisabled);
        put(new CEndOfTrace);
        m_output.commit();
        return m_packets;
    }

private:
    struct Call {
        std::uint32_t function;
        std::uint64_t end;
    };
    struct End {
        std::uint64_t time;
        Thread thread;
        bool operator>(const End& other) const { return time > other.time; }
    };

    void begin(std::uint64_t time) {
        m_time = time;
        put(new CTraceEnabled(0, SFrameConfig())); // its length is put in at its end
        if (m_trace.m_frequency > 0)
            put(new CTimestamp(time, m_trace.m_frequency));
        else if (m_trace.m_start)
            put(new CTimestamp(time));
        for (const Process& process : m_trace.m_processes) {
            if (!process.name.empty())
                tell(fmt::format("quorvex.process pid={} program={}", process.number, lineOf(process.name)));
        }
        for (const ThreadFacts& thread : m_trace.m_threads) {
            const Process& process = m_trace.m_processes[thread.process];
            if (!process.name.empty() || !thread.name.empty())
                tell(fmt::format("quorvex.thread pid={} tid={}{}{}", process.number, thread.number,
                                 thread.name.empty() ? "" : " name=", lineOf(thread.name)));
        }
    }

    /// A text as the last value of a line that tells of a program.
    static std::string lineOf(std::string_view text) {
        std::string line;
        for (const char c : text) {
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '\\')
                fmt::format_to(std::back_inserter(line), "\\x{:02x}", static_cast<unsigned char>(c));
            else
                line += c;
        }
        return line;
    }

    void put(CPacket* packet) {
        ++m_packets;
        m_output.write(PacketPointer(packet), m_target.name(), 0);
    }
    void tell(const std::string& text) { put(new CLogMsg(m_time, textOf(text))); }
    CCoreContext at(const Happening& what, std::uint64_t address = kUnknown64) const {
        return {m_time, what.core, m_trace.m_threads[what.thread].number, address};
    }
    /// Whether a name is used for the first time.
    static bool isNew(std::vector<bool>& used, std::uint32_t number) {
        if (number >= used.size())
            used.resize(number + 1);
        const bool wasUsed = used[number];
        used[number] = true;
        return !wasUsed;
    }

    /// Ends the calls whose end is known until then.
    void leaveUntil(std::uint64_t time) {
        while (!m_ends.empty() && m_ends.top().time <= time) {
            const End end = m_ends.top();
            m_ends.pop();
            std::vector<Call>& stack = m_stacks[end.thread];
            const auto outer = std::ranges::find(stack.rbegin(), stack.rend(), end.time, &Call::end);
            if (outer == stack.rend())
                continue; // it has been left
            m_time = end.time;
            for (auto calls = outer - stack.rbegin() + 1; calls > 0; --calls)
                leave({.sort = Sort::Leave, .thread = end.thread, .name = kLast});
        }
    }

    void enter(const Happening& what, std::uint64_t end) {
        const CCoreContext place = at(what);
        if (isNew(m_functions, what.name)) {
            const auto name = m_trace.m_functionNames.find(what.name);
            put(new CFunctionDefine(
                place, what.name + 1,
                textOf(name != m_trace.m_functionNames.end() ? name->second : *m_trace.m_functions.names[what.name])));
        }
        std::vector<Call>& stack = m_stacks[what.thread];
        if (end != kOpen) {
            // What is called ends no later than its caller.
            const auto caller =
                std::ranges::find_if(stack.rbegin(), stack.rend(), [](const Call& call) { return call.end != kOpen; });
            if (caller != stack.rend() && caller->end < end) {
                m_trace.lose("calls that go on behind the end of their callers");
                end = caller->end;
            }
            m_ends.push({end, what.thread});
        }
        stack.push_back({what.name, end});
        put(new CFunctionEnter(place, what.name + 1));
    }

    void leave(const Happening& what) {
        std::vector<Call>& stack = m_stacks[what.thread];
        const auto its = what.name == kLast
                             ? stack.rbegin()
                             : std::ranges::find(stack.rbegin(), stack.rend(), what.name, &Call::function);
        if (its == stack.rend()) {
            m_trace.lose("ends of calls that have not begun");
            return;
        }
        auto calls = its - stack.rbegin() + 1;
        if (calls > 1)
            m_trace.lose("calls that go on behind the end of their callers", static_cast<std::uint64_t>(calls - 1));
        for (; calls > 0; --calls, stack.pop_back())
            put(new CFunctionLeave(at(what), stack.back().function + 1));
    }

    void show(const Happening& what, std::string_view text) {
        switch (what.sort) {
        case Sort::Enter:
            enter(what, kOpen);
            break;
        case Sort::Call:
            enter(what, what.value > kOpen - 1 - m_time ? kOpen - 1 : m_time + what.value);
            break;
        case Sort::Leave:
            leave(what);
            break;
        case Sort::Run:
        case Sort::Stop: {
            const ThreadFacts& thread = m_trace.m_threads[what.thread];
            const Process& process = m_trace.m_processes[thread.process];
            if (isNew(m_processes, thread.process))
                put(new CProcessDefine(at(what), process.number,
                                       textOf(process.name.empty() ? thread.name : process.name)));
            if (what.sort == Sort::Run)
                put(new CProcessEnter(at(what), process.number));
            else if (m_running[what.thread])
                put(new CProcessLeave(at(what), process.number));
            m_running[what.thread] = what.sort == Sort::Run;
            break;
        }
        case Sort::Integer:
        case Sort::Double:
            count(what);
            break;
        case Sort::Happen:
            if (isNew(m_events, what.name))
                put(new CEventDefine(what.name + 1, Trigger, textOf(*m_trace.m_events.names[what.name])));
            put(new CEvent(at(what, what.value), what.name + 1));
            break;
        case Sort::Signal:
            signal(what);
            break;
        case Sort::Message:
            tell(std::string(text));
            break;
        case Sort::Packets:
            putAll(what, text);
            break;
        case Sort::Runs:
            m_coreOf[what.thread] = what.core;
            m_threadOn[what.core] = what.thread;
            break;
        case Sort::Rests:
            m_lastCoreOf[what.thread] = what.core;
            m_coreOf.erase(what.thread);
            m_threadOn.erase(what.core);
            break;
        }
    }

    void putAll(const Happening& what, std::string_view bytes) {
        while (!bytes.empty()) {
            unsigned taken = 0;
            PacketPointer packet;
            try {
                packet.reset(CPacketFactory::getCPacket(bytes.data(), static_cast<unsigned>(bytes.size()), taken));
            } catch (const CQVXException&) { // its bytes are none of its kind
            }
            if (!packet) {
                m_trace.lose("packets that cannot be read");
                return;
            }
            place(what, std::move(packet));
            bytes.remove_prefix(taken);
        }
    }

    void place(const Happening& what, PacketPointer packet) {
        const auto of = static_cast<Place::Of>(what.thread);
        const auto other = [&](const std::unordered_map<std::uint32_t, std::uint32_t>& known) {
            const auto at = known.find(what.core);
            return at == known.end() ? kUnknown : at->second;
        };
        if (of != Place::Nothing) {
            const std::uint32_t thread = of == Place::Thread ? what.core
                                         : of == Place::Core ? other(m_threadOn)
                                                             : kUnknown;
            std::uint32_t core = of == Place::Thread ? other(m_coreOf) : what.core;
            if (of == Place::Thread && core == kUnknown && packet->TraceCode() == TraceBroken)
                core = other(m_lastCoreOf); // it tells what ran before it
            changeNumbers(*packet, [&](FieldMeaning, std::string_view name, std::uint64_t& value) {
                value = name == "HWCtx" ? core : name == "SWCtx" ? thread : value;
            });
        }
        put(packet.release());
    }

    void count(const Happening& what) {
        const Counter& counter = m_trace.m_counters[what.name];
        if (isNew(m_counters, what.name)) {
            put(new CCounterDefine(at(what), what.name + 1, 0, textOf(*m_trace.m_counterNames.names[what.name])));
            if (!counter.unit.empty())
                put(new CCounterDefineUnit(at(what), what.name + 1, 0, textOf(counter.unit)));
        }
        TCounter_t value(what.value);
        if (what.sort == Sort::Integer && counter.hasFraction) {
            const auto whole = static_cast<std::int64_t>(what.value);
            if ((whole < 0 ? 0 - what.value : what.value) > kExactDouble)
                m_trace.lose("digits of great numbers beside ones with fractions");
            value = TCounter_t(static_cast<double>(whole));
        }
        put(new CCounterValue(at(what), what.name + 1, value));
    }

    /// Each has a bus for itself: of other signals of its bus, a packet would say that they are not valid.
    void signal(const Happening& what) {
        const CBusContext bus(m_time, kUnknown, what.name);
        const CSignalMask line("1"), none("0");
        if (isNew(m_signals, what.name))
            put(new CSignalDefine(bus, what.name + 1, line, textOf(*m_trace.m_signals.names[what.name])));
        put(new CSignal(bus, what.value ? line : none, line));
    }

    ImportedTrace& m_trace;
    Target& m_target;
    TraceOutput m_output;
    std::vector<std::vector<Call>> m_stacks; ///< by thread
    std::vector<bool> m_running;             ///< by thread
    std::priority_queue<End, std::vector<End>, std::greater<>> m_ends;
    std::unordered_map<std::uint32_t, std::uint32_t> m_coreOf, m_threadOn,
        m_lastCoreOf; ///< of threads and cores that are told to run
    std::vector<bool> m_functions, m_processes, m_counters, m_events, m_signals; ///< that are defined
    std::uint64_t m_time = 0;
    std::uint64_t m_packets = 0;
};

std::uint64_t ImportedTrace::write(Target& target, bool isPaged, bool isRelative) {
    numberRest();
    return Writing(*this, target, isPaged, isRelative).run();
}

} // namespace qvx
