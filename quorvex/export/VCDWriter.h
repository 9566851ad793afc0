#pragma once

#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Owned.h"

#include <cstdint>
#include <string>
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
    enum class Meaning : std::uint8_t { Value, Function, Process, Thread, Core, Exception, State, Depth };

    /// A variable of the dump, for those who set up a viewer.
    struct Variable {
        std::string path;           ///< scopes and name with dots between them, and the range of bits where declared
        unsigned width;             ///< bits
        Meaning meaning;            ///< of its numbers
        std::uint32_t stateMachine; ///< its number in names(), whose states they are
        bool isDetail;              ///< one of the bits of functions and processes
    };

    explicit CVCDWriter(std::ostream& out, ViewerOptions options = {});
    ~CVCDWriter() override;

    /// The variables in the order of the file, once it is written.
    const std::vector<Variable>& variables() const { return m_shown; }
    /// The last time in the file in its own units, likewise.
    std::uint64_t duration() const { return m_duration; }
    using CViewerWriter::names;

protected:
    bool show(const CPacket& packet, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    bool writeFile() override;

private:
    class Model;
    class Header;

    platform::Owned<Model> m_model;
    std::vector<Variable> m_shown;
    std::uint64_t m_duration = 0;
};

} // namespace Quorvex
