#include "tests/support/BtfChecker.h"

#include <charconv>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

namespace Quorvex::test {
namespace {

using Occurrence = std::pair<std::string, long long>; ///< of an entity: its name and number

struct Edge {
    std::string_view event, from, to;
};

constexpr Edge kProcessEdges[] = {{"activate", "terminated", "active"},
                                  {"start", "active", "running"},
                                  {"preempt", "running", "ready"},
                                  {"resume", "ready", "running"},
                                  {"terminate", "running", "terminated"}};
constexpr Edge kRunnableEdges[] = {{"start", "terminated", "running"},
                                   {"suspend", "running", "suspended"},
                                   {"resume", "suspended", "running"},
                                   {"terminate", "running", "terminated"}};

class Checker {
public:
    std::vector<std::string> complaints;

    void check(const std::string& text) {
        std::istringstream in(text);
        m_version = text.starts_with("#version 2.") ? text.substr(9, 5) : "";
        expect(m_version == "2.1.0" || m_version == "2.1.5" || m_version == "2.2.0", "version is missing");
        expect(text.ends_with('\n'), "last line is cut");
        for (std::string line; std::getline(in, line);) {
            ++m_line;
            const std::size_t mapping = line.find("Mapping ");
            if (line.starts_with("#-")) {
                row(line.substr(2));
            } else if (line.starts_with('#') && mapping != std::string::npos) {
                expect(m_version == "2.2.0", "mapping in an older version");
                m_table = line.substr(0, mapping) + "Table";
                row(line.substr(mapping + 8));
                m_table.clear();
            } else if (m_table = line.ends_with("Table") && m_version != "2.2.0" ? line : ""; !line.starts_with('#'))
                event(line);
            else if (!line.starts_with("# "))
                expect(!m_events, "parameter behind the events");
        }
        expect(m_table.empty(), "file ends inside a table");
        for (const auto& [name, type] : m_types)
            expect(m_names.count(name) == 1, name + " is not in the entity table");
    }

private:
    struct Process {
        std::string state, core;
        std::vector<Occurrence> runnables; ///< outer first
        std::size_t running = 0;           ///< of them; the inner ones are suspended
    };
    struct Line {
        std::string source, type, target, event;
        long long sourceNumber = 0, number = 0;
        bool noted = false;
    };

    bool expect(bool holds, const std::string& otherwise) {
        if (!holds)
            complaints.push_back("line " + std::to_string(m_line) + ": " + otherwise);
        return holds;
    }

    void row(const std::string& text) {
        if (!expect(text.find(' ') != std::string::npos && !m_table.empty(), "row of no table"))
            return;
        const std::string key = text.substr(0, text.find(' ')), value = text.substr(key.size() + 1);
        if (m_table == "#typeTable")
            m_knownTypes.insert(value);
        else if (m_table == "#entityTable")
            expect(m_names.insert(value).second, value + " is twice in the entity table");
        else if (expect(m_knownTypes.contains(key), key + " is not in the type table"))
            expect(m_types.emplace(value, key).second, value + " has two types");
    }

    static std::optional<long long> integer(const std::string& text) {
        long long value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
    }

    void event(const std::string& text) {
        m_events = true;
        std::vector<std::string> columns;
        std::istringstream in(text);
        for (std::string column; std::getline(in, column, ',');)
            columns.push_back(column);
        if (!expect(columns.size() == 7 || columns.size() == 8, "not 7 or 8 columns"))
            return;
        const auto time = integer(columns[0]), sourceNumber = integer(columns[2]), number = integer(columns[5]);
        if (!expect(time && sourceNumber && number, "not an integer"))
            return;
        expect(*time >= m_time, "time goes back");
        m_time = *time;
        const Line line{columns[1], columns[3], columns[4], columns[6], *sourceNumber, *number, columns.size() == 8};
        expect(!typeOf(line.source).empty(), "source " + line.source + " is no entity");
        if (!expect(typeOf(line.target) == line.type, line.target + " is not of type " + line.type))
            return;
        if (line.type == "STI")
            stimulus(line);
        else if (line.type == "T" || line.type == (m_version == "2.1.0" ? "ISR" : "I"))
            process(line);
        else if (line.type == "R")
            runnable(line);
        else if (line.type == "SIG")
            signal(line);
        else
            expect(false, "unexpected event");
    }
    std::string typeOf(const std::string& name) const {
        const auto at = m_types.find(name);
        return at == m_types.end() ? "" : at->second;
    }
    /// A new occurrence of the target.
    void occur(const Line& line) {
        expect(line.number == m_next[line.target]++, "number is not the next of " + line.target);
    }
    /// Follows the edge of the event; a state that is not known is any.
    template <std::size_t n> void go(const Edge (&edges)[n], std::string& state, const Line& line) {
        for (const Edge& edge : edges) {
            if (edge.event != line.event)
                continue;
            expect(state.empty() || state == edge.from, line.event + " while " + state);
            state = edge.to;
            return;
        }
        expect(false, "unknown event " + line.event);
    }

    void stimulus(const Line& line) {
        expect(line.event == "trigger", "unknown event " + line.event);
        if (m_version == "2.2.0")
            expect(line.source == line.target && line.sourceNumber == line.number, "stimulus is not its own source");
        else
            expect(typeOf(line.source) == "SIM" && line.sourceNumber == -1, "SIM is not the source");
        occur(line);
        m_triggered.insert({line.target, line.number});
    }

    void process(const Line& line) {
        Process& process = m_processes[{line.target, line.number}];
        if (line.event == "activate" || process.state.empty())
            occur(line);
        if (line.event == "activate") {
            expect(m_triggered.erase({line.source, line.sourceNumber}) == 1, "activate without its trigger");
            process.state = process.state.empty() ? "terminated" : process.state;
            go(kProcessEdges, process.state, line);
            return;
        }
        expect(typeOf(line.source) == "C" && line.sourceNumber == 0, "source is no core");
        go(kProcessEdges, process.state, line);
        Process*& onCore = m_cores[line.source];
        if (process.state == "running") {
            expect(!onCore, line.source + " is not free");
            onCore = &process;
            return;
        }
        expect(onCore == &process, line.target + " is not on " + line.source);
        onCore = nullptr;
        expect(process.running == 0, "runnables still run");
        if (process.state == "terminated")
            expect(process.runnables.empty(), "runnables are still open");
    }

    /// The process that is the source, which runs; null when it does not.
    Process* source(const Line& line) {
        const auto at = m_processes.find({line.source, line.sourceNumber});
        return expect(at != m_processes.end() && at->second.state == "running", "source is no running process")
                   ? &at->second
                   : nullptr;
    }

    void runnable(const Line& line) {
        const Occurrence self(line.target, line.number);
        Process* const process = source(line);
        go(kRunnableEdges, m_runnables.emplace(self, "terminated").first->second, line);
        if (line.event == "start")
            occur(line);
        if (!process)
            return;
        auto& [state, core, stack, running] = *process;
        if (line.event == "start") {
            expect(running == stack.size(), "start among suspended runnables");
            stack.push_back(self);
            ++running;
        } else if (line.event == "resume") {
            if (expect(running < stack.size() && stack[running] == self, "resume is not of the outermost"))
                ++running;
        } else if (expect(running > 0 && stack[running - 1] == self, line.event + " is not of the innermost")) {
            --running;
            if (line.event == "terminate" && expect(running + 1 == stack.size(), "terminate among suspended runnables"))
                stack.pop_back();
        }
    }

    void signal(const Line& line) {
        expect(line.event == "read" || line.event == "write", "unknown event " + line.event);
        expect(line.number == 0, "signal with a number");
        expect(line.noted, "note is missing");
        if (const Process* process = source(line))
            expect(process->running == process->runnables.size(), "runnables are still suspended");
    }

    std::string m_version;
    std::size_t m_line = 0;
    long long m_time = 0;
    bool m_events = false;
    std::string m_table; ///< that rows belong to
    std::set<std::string> m_knownTypes, m_names;
    std::map<std::string, std::string> m_types;
    std::map<std::string, long long> m_next;
    std::set<Occurrence> m_triggered; ///< stimuli that have not activated yet
    std::map<Occurrence, Process> m_processes;
    std::map<std::string, Process*> m_cores;
    std::map<Occurrence, std::string> m_runnables; ///< their states
};

} // namespace

std::vector<std::string> checkBtf(const std::string& text) {
    Checker checker;
    checker.check(text);
    return std::move(checker.complaints);
}

} // namespace Quorvex::test
