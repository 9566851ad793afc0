#pragma once

#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Owned.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

/// Writes a value change dump (IEEE 1364, four states) of what functions, processes, interrupts, instructions,
/// counters, events, signals, variables and state machines do. Only bits and numbers are written, which every reader of
/// the format knows; names are those of variables:
///
///     core_0      thread, process, process_depth, exception, exception_depth: numbers of what runs there; of
///                 instructions, address, branch_target, and executed where some are not
///       processes   a bit a process, 1 while it is entered
///     thread_17   function, depth: the function that runs and how many are entered; core: where
///       functions   a bit a function, 1 while it is entered
///     counters    64 bits, or a real; one variable a cell, by its indices, as hits_3
///     events      a bit each, 1 for one tick, and its data as bits
///     signals     the lines of each defined signal; those that are not valid are x
///     states      the number of the state of each instance of a state machine
///     variables   their value as bits
///
/// A variable is as wide as its widest value. What is not known is x, what is known not to run is z: the thread of a
/// core that it has left, the function of a thread that has left all. Depths and bits begin with 0. What a thread has
/// entered is kept for each process that is entered on its core. A gap is told by $dumpoff and $dumpon, and all is
/// unknown behind it; where it is one of several processes that has the gap, its threads and its core are x.
///
/// Of names, characters other than letters, digits and '_' become '_', one stands in front of a leading digit, and 1000
/// characters are kept. Time begins with the first known tick.
class QUORVEX_API CVCDWriter : public CViewerWriter {
public:
    /// What the numbers in a variable stand for; in the order in which the variables of a scope come.
    enum class Meaning : std::uint8_t {
        Thread,
        Function,
        Process,
        Exception,
        Depth,
        Core,
        State,
        Counter,
        Address,
        Value
    };

    /// A variable of the dump, for those who set up a viewer.
    struct Variable {
        std::string path;           ///< scopes and name with dots between them, and the range of bits where declared
        unsigned width;             ///< bits
        Meaning meaning;            ///< of its numbers
        std::uint32_t stateMachine; ///< its number in names(), whose states they are
        CounterType counterType;    ///< of a counter
        std::string unit;           ///< likewise; empty where none is told
    };

    explicit CVCDWriter(std::ostream& out, ViewerOptions options = {});
    ~CVCDWriter() override;

    /// The variables in the order of the file, once it is written, but for the bits of functions and processes, which
    /// can be many.
    const std::vector<Variable>& variables() const { return m_shown; }
    /// The last time in the file in its own units, likewise.
    std::uint64_t duration() const { return m_duration; }
    using CViewerWriter::names;

protected:
    bool show(const CPacket& packet, std::uint64_t time) override;
    void endOf(unsigned process, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    void fixLine(std::string_view line, std::string& to) override;
    bool writeFile() override;

private:
    class Body;
    class Model;
    class Header;

    platform::Owned<Body> m_body;
    platform::Owned<Model> m_model;
    std::vector<Variable> m_shown;
    std::uint64_t m_duration = 0;
};

} // namespace Quorvex
