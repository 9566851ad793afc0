#include "Resolve.h"

#include "FunctionIds.h"
#include "Symbols.h"
#include "TraceInput.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;

constexpr std::uint64_t kNever = ~std::uint64_t{0};

/// A text of the last value of a message.
std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || byte == '\\')
            out += fmt::format("\\x{:02x}", byte);
        else
            out += c;
    }
    return out;
}

class Resolving {
public:
    Resolving(const std::string& from, const std::string& debugDirectory)
        : m_from(from), m_debugDirectory(debugDirectory) {}

    ExitCode run(const std::function<void(PacketPointer)>& put) {
        readFacts();
        nameFunctions();
        tellProblems();
        return write(put);
    }

private:
    struct Function {
        std::uint32_t id = 0;
        bool isDefined = false;
    };
    /// Name, source and line; where no source is known, the file of code is.
    using Key = std::tuple<std::string, std::string, unsigned>;
    using Named = std::map<Key, Function>::value_type;

    struct Module {
        std::uint64_t from, to, bias;
        std::string path, buildId;
        std::uint64_t gone = kNever; ///< the last tick at which it is there
        Symbols* symbols = nullptr;  ///< once it has been asked
    };
    struct Process {
        std::vector<Module> modules; ///< in the order in which they are told
        std::set<std::uint64_t> ends;
        std::unordered_map<std::uint64_t, Named*> functions; ///< by address, up to the next end
        std::uint64_t nextEnd = 0;
    };
    struct Thread {
        std::vector<std::pair<std::uint64_t, Process*>> processes; ///< with the tick from which on it belongs to it
        std::size_t now = 0;
    };

    static bool isCall(tagTCode code) {
        return code == FunctionEnter || code == FunctionLeave || code == RelFunctionEnter || code == RelFunctionLeave;
    }
    static bool hasAddress(std::uint64_t ip) { return ip != kUnknown64; }

    /// Calls `look(cursor, context)` with the calls of a trace, and `other(cursor)` with all else.
    template <class Look, class Other> void walk(Look look, Other other) {
        TraceFile trace(m_from);
        while (trace.advance()) {
            const CTraceCursor& at = trace.cursor();
            isCall(at.TraceCode()) ? look(at) : other(at);
        }
    }

    void readFacts() {
        walk(
            [&](const CTraceCursor& call) {
                if (!hasAddress(call.contextOf<CCoreContext>()->ip))
                    m_taken.insert(enteredIn(call));
            },
            [&](const CTraceCursor& packet) {
                if (packet.TraceCode() == Message)
                    note(packet.text(), packet.tick());
                else if (const auto definition = packet.as<CFunctionDefine>())
                    m_taken.insert(definition->FuncId());
            });
    }
    void note(std::string_view text, std::uint64_t tick) {
        const RecordedFact fact(text);
        const std::string_view word = fact.word();
        if (word.empty())
            return;
        Process& process = m_processes[fact.number("pid")];
        if (word == "process") {
            for (Module& module : process.modules)
                end(process, module, tick);
        } else if (word == "thread") {
            m_threads[static_cast<std::uint32_t>(fact.number("tid"))].processes.emplace_back(tick, &process);
            m_threadFacts[threadOf(fact)] = text;
        } else if (word == "module") {
            process.modules.push_back(
                {fact.number("from"), fact.number("to"), fact.number("bias"), fact.text("path"), fact.bytes("build")});
        } else if (word == "gone") {
            for (Module& module : process.modules) {
                if (module.from == fact.number("from"))
                    end(process, module, tick);
            }
        }
    }
    using ThreadKey = std::pair<std::uint64_t, std::uint64_t>; ///< numbers of process and thread
    static ThreadKey threadOf(const RecordedFact& fact) { return {fact.number("pid"), fact.number("tid")}; }
    static void end(Process& process, Module& module, std::uint64_t tick) {
        if (module.gone != kNever)
            return;
        module.gone = tick;
        process.ends.insert(tick);
    }

    /// Goes to the start of the trace, for functionOf().
    void rewind() {
        for (auto& [id, thread] : m_threads)
            thread.now = 0;
        for (auto& [pid, process] : m_processes)
            process.nextEnd = 0;
    }
    Process& processOf(std::uint32_t id, std::uint64_t tick) {
        if (id != m_lastThread || !m_last) {
            m_lastThread = id;
            m_last = &m_threads[id];
            // A thread that nothing is told of belongs to the only process there is.
            if (m_last->processes.empty())
                m_last->processes.emplace_back(0, m_processes.size() == 1 ? &m_processes.begin()->second : &m_none);
        }
        const auto& processes = m_last->processes;
        while (m_last->now + 1 < processes.size() && processes[m_last->now + 1].first <= tick)
            ++m_last->now;
        return *processes[m_last->now].second;
    }
    /// The function of a call; calls come in the order of the trace.
    Named& functionOf(const CCoreContext::Values& call) {
        Process& process = processOf(call.swCtx, call.tick);
        if (call.tick > process.nextEnd || process.nextEnd == 0) {
            process.functions.clear();
            const auto end = process.ends.lower_bound(call.tick);
            process.nextEnd = end == process.ends.end() ? kNever : *end;
        }
        Named*& function = process.functions[call.ip];
        if (!function)
            function = &nameOf(process, call);
        return *function;
    }
    Named& nameOf(Process& process, const CCoreContext::Values& call) {
        const auto module = std::ranges::find_if(process.modules, [&](const Module& its) {
            return its.from <= call.ip && call.ip < its.to && its.gone >= call.tick;
        });
        if (module == process.modules.end()) {
            m_nameless.insert(call.ip);
            return named({fmt::format("{:#x}", call.ip), "", 0});
        }
        const Symbols::Function& function = symbolsOf(*module).function(call.ip - module->bias);
        if (!function.isNamed)
            m_nameless.insert(call.ip);
        return named({function.name, function.file.empty() ? module->path : function.file, function.line});
    }
    Named& named(Key key) { return *m_functions.try_emplace(std::move(key)).first; }
    Symbols& symbolsOf(Module& module) {
        if (!module.symbols) {
            std::unique_ptr<Symbols>& symbols = m_symbols[{module.path, module.buildId}];
            if (!symbols)
                symbols = std::make_unique<Symbols>(module.path, module.buildId, m_debugDirectory);
            module.symbols = symbols.get();
        }
        return *module.symbols;
    }

    void nameFunctions() {
        rewind();
        walk(
            [&](const CTraceCursor& call) {
                if (const auto context = call.contextOf<CCoreContext>(); hasAddress(context->ip))
                    functionOf(*context);
            },
            [](const CTraceCursor&) {});
        FunctionIds ids(m_taken);
        for (auto& [key, function] : m_functions) {
            const auto& [name, file, line] = key;
            function.id = ids.give(name, file.substr(file.rfind('/') + 1), line); // wherever it was built
        }
        if (const std::uint64_t count = ids.collisions(); count > 0)
            tell(fmt::format("{} function{} an identifier that another one has; {} another", count,
                             count == 1 ? " comes to" : "s come to", count == 1 ? "it got" : "each got"));
    }
    void tellProblems() const {
        for (const auto& [file, symbols] : m_symbols) {
            if (!symbols->problem().empty())
                tell(fmt::format("{}: {}; its functions have no names", file.first, symbols->problem()));
        }
        if (const std::size_t count = m_nameless.size(); count > 0)
            tell(fmt::format("{} function{} no name", count, count == 1 ? " has" : "s have"));
    }

    ExitCode write(const std::function<void(PacketPointer)>& put) {
        rewind();
        TraceInput trace(m_from);
        while (trace.advance()) {
            const CTraceCursor& at = trace.cursor();
            PacketPointer packet = absoluteAt(at);
            if (const RecordedFact fact(at.TraceCode() == Message ? at.text() : ""); fact.word() == "thread")
                packet = PacketPointer(new CMessage(at.tick(), CMessagePayload::kDebugLevel,
                                                    CCharStringSequence(m_threadFacts.at(threadOf(fact)).c_str())));
            const auto context = isCall(at.TraceCode()) ? at.contextOf<CCoreContext>() : std::nullopt;
            if (context && hasAddress(context->ip)) {
                Named& function = functionOf(*context);
                if (!std::exchange(function.second.isDefined, true))
                    define(function, *context, put);
                changeNumbers(*packet, [&](FieldMeaning, std::string_view field, std::uint64_t& value) {
                    if (field == "FuncId" || field == "TgtFuncId")
                        value = function.second.id;
                });
            }
            put(std::move(packet));
        }
        return trace.reportDamage();
    }
    static void define(const Named& function, const CCoreContext::Values& call,
                       const std::function<void(PacketPointer)>& put) {
        const auto& [name, file, line] = function.first;
        const std::uint32_t id = function.second.id;
        put(PacketPointer(
            new CFunctionDefine(call.tick, call.hwCtx, call.swCtx, call.ip, id, CCharStringSequence(name.c_str()))));
        if (file.empty())
            return;
        const std::string text = fmt::format("quorvex.function id={} line={} file={}", id, line, escaped(file));
        put(PacketPointer(new CMessage(call.tick, CMessagePayload::kDebugLevel, CCharStringSequence(text.c_str()))));
    }

    const std::string& m_from;
    const std::string& m_debugDirectory;
    std::map<std::uint64_t, Process> m_processes;
    Process m_none; ///< of threads that nothing is told of
    std::unordered_map<std::uint32_t, Thread> m_threads;
    std::map<ThreadKey, std::string> m_threadFacts; ///< the last of each: threads are called as they are in the end
    std::uint32_t m_lastThread = 0;
    Thread* m_last = nullptr; ///< the thread of the last call
    std::set<std::uint32_t> m_taken;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<Symbols>> m_symbols; ///< by path and build id
    std::map<Key, Function> m_functions;
    std::set<std::uint64_t> m_nameless; ///< addresses
};

} // namespace

ExitCode resolve(const std::string& from, const std::function<void(PacketPointer)>& put,
                 const std::string& debugDirectory) {
    return Resolving(from, debugDirectory).run(put);
}

} // namespace qvx
