#pragma once

#include "quorvex/export/VCDIdentifier.h"
#include "quorvex/export/VCDValue.h"
#include "quorvex/export/ViewerWriter.h"
#include "quorvex/packets/PacketKinds.h"

#include <compare>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Quorvex {

/// Writes a value change dump (IEEE 1364, four states) of what functions, processes, interrupts, counters, events,
/// signals, variables and state machines do. Only bits, numbers and events are written, which every reader of the
/// format knows; names are those of variables:
///
///     core_0      thread, process, process_depth, exception, exception_depth: numbers of what runs there
///       processes   a bit a process, 1 while it is entered
///     thread_17   function, depth: the function that runs and how many are entered; core: where
///       functions   a bit a function, 1 while it is entered
///     counters    64 bits, or a real for values that look like doubles
///     events      an event each, and its data as bits
///     signals     the lines of each defined signal; those that are not valid are X
///     states      the number of the state of each instance of a state machine
///     variables   their value as bits
///
/// What has not been told yet is X, depths are 0. Characters of names other than letters, digits, '_' and '$' become
/// '_'. Time begins with the first known tick.
class QUORVEX_API CVCDWriter : public CViewerWriter {
public:
    /// What the numbers in a variable stand for.
    enum class Meaning : std::uint8_t { Value, Function, Process, Thread, Core, Exception, State };

    /// A variable of the dump, for those who set up a viewer.
    struct Variable {
        std::string path;           ///< scopes and name with dots between them, and the range of bits where declared
        unsigned width;             ///< bits
        Meaning meaning;            ///< of its numbers
        std::uint32_t stateMachine; ///< whose states they are
        bool isDetail;              ///< one of the bits of functions and processes
    };

    explicit CVCDWriter(std::ostream& out);
    ~CVCDWriter() override;

    /// The variables in the order of the file, and the last time in it in its own units; once it is written.
    const std::vector<Variable>& variables() const { return m_shown; }
    std::uint64_t duration() const { return m_duration; }
    using CViewerWriter::names;

protected:
    void show(const CPacket& packet, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    bool writeFile() override;

private:
    enum class Type : std::uint8_t { Bit, Vector, Integer, Real, Event };
    /// Where variables stand in the file, in this order.
    enum class Area : std::uint8_t { Cores, Threads, Counters, Events, Signals, States, Variables };

    static constexpr unsigned kNone = ~0U;

    /// What a variable is declared by.
    struct Declaration {
        Area area;
        std::uint32_t owner; ///< core or thread; 0 elsewhere
        bool isDetail;       ///< stands in a scope of its own inside the owner's
        Type type;
        unsigned width;
        std::string_view label; ///< a literal: the name, or what stands before the number of what has no name
        std::optional<CTraceNames::Sort> sort; ///< of what gives the name
        std::uint64_t id;                      ///< likewise
        std::string suffix;                    ///< behind the name
        Meaning meaning = Meaning::Value;

        auto operator<=>(const Declaration&) const = default;
    };
    struct Entered {
        unsigned variable = kNone;
        unsigned count = 0;
    };
    /// What is entered and not left, outermost first.
    struct Stack {
        std::vector<std::uint32_t> ids;
        std::uint64_t deeper = 0; ///< entered beyond what is kept
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

    unsigned declare(Declaration&& declaration);
    /// Writes a change of a variable.
    void change(unsigned variable, const CVCDValue& value);
    void changeNumber(unsigned variable, std::uint64_t number);
    void changeBytes(unsigned variable, const unsigned char* bytes, unsigned count);

    void runs(const CCoreContext& context);
    Thread& thread(std::uint32_t number);
    Core& core(std::uint32_t number);
    /// Enter and leave; `bit` declares the variable of one id.
    template <class Bit> void enter(Stack& stack, std::uint32_t id, Bit&& bit);
    void leave(Stack& stack, std::uint32_t id);
    void leaveLast(Stack& stack);

    void showFunction(const CCoreContext& context, std::uint32_t id, bool entered);
    void showProcess(const CCoreContext& context, std::uint32_t id, bool entered);
    void showException(const CCoreContext& context, std::uint32_t id, bool entered);
    void showCounter(std::uint32_t id, const TCounter_t& value, const std::string& index);
    void showSignal(const CSignal& signal);
    void showState(std::uint32_t machine, std::uint32_t instance, std::optional<std::uint32_t> state);

    std::uint64_t m_time = 0;            ///< of the packet that is shown
    std::optional<std::uint64_t> m_told; ///< the last time in the body
    CVCDIdentifier m_identifiers;
    std::map<Declaration, unsigned> m_variables; ///< their identifiers
    std::unordered_map<std::uint32_t, Thread> m_threads;
    std::unordered_map<std::uint32_t, Core> m_cores;
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<DefinedSignal>> m_signals; ///< by core and master
    std::map<std::uint64_t, std::uint32_t> m_targets;                                        ///< of transitions
    std::vector<Variable> m_shown;
    std::uint64_t m_duration = 0;
};

} // namespace Quorvex
