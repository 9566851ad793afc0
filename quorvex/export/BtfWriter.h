#pragma once

#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Owned.h"

#include <string_view>

namespace Quorvex {

/// Writes a trace as a BTF file (Best Trace Format), 2.1.0 unless the options say otherwise: which task ran on which
/// core, the interrupts and functions in it, and the values of variables and counters. Times are in nanoseconds;
/// without a known frequency a tick counts as one.
///
///     core                  C      Core_<number>
///     software context      T      TASK_<number>; while a process is entered on the core, TASK_<name>, and where
///                                  several threads run in that, TASK_<name>_<number>
///     hardware exception    I      TASK_ISR_<number>; the type is ISR in 2.1.0
///     function              R      its name
///     variable, counter     SIG    its name, of a counter with its indices, as hits[3]
///     what activates        STI    STI_<task or interrupt>, which SIM triggers; in 2.2.0 it triggers itself
///
/// A task runs on a core from the first packet of that core that tells so until a packet tells otherwise. A process
/// that is left returns to the one around it. Left with no function open it terminates, and is activated again by the
/// next enter; otherwise it is preempted, and resumed. When an input ends, and at a gap, what ran terminates.
///
/// An entity has the last name that is given, also in lines before that; what BTF does not allow in a name becomes '_',
/// and a name that is taken gets the number as a suffix. Viewers find tasks, and functions in them, by names that begin
/// with TASK.
///
/// What the trace lacks (leaves, above all) is supplied so that the file is legal, and counted in losses(). Of
/// functions that are open in one task at a time 4096 are shown, of interrupts and of processes on one core 256. What
/// runs at the end of the trace terminates there.
class QUORVEX_API CBtfWriter : public CViewerWriter {
public:
    /// The versions of the format that can be asked for, of which a file is what its first line says.
    static constexpr std::string_view kVersions[] = {"2.1.0", "2.1.5", "2.2.0"};

    /// Names of inputs, and the wall clock at time 0, become lines of the header where they are known.
    explicit CBtfWriter(std::ostream& out, ViewerOptions options = {});
    ~CBtfWriter() override;

protected:
    bool show(const CPacket& packet, std::uint64_t time) override;
    void endOf(unsigned process, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    void fixLine(std::string_view line, std::string& to) override;
    bool writeFile() override;

private:
    class Model;

    platform::Owned<Model> m_model;
};

} // namespace Quorvex
