#pragma once

#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Owned.h"

#include <string>

namespace Quorvex {

/// Writes a trace as a BTF 2.1.0 file (Best Trace Format): which task ran on which core, the interrupts and functions
/// in it, and the values of variables and counters. Times are in nanoseconds; without a known frequency a tick counts
/// as one.
///
///     core                  C      Core_<number>
///     software context      T      TASK_<number>; TASK_<name> while a process is entered on the core
///     hardware exception    I      ISR_<number>
///     function              R      its name
///     variable, counter     SIG    its name, of a counter with its indices
///     what activates        STI    STI_<task or interrupt>
///
/// A task runs on a core from the first packet of that core that tells so until a packet tells otherwise. An entity
/// keeps, for the whole file, the name that is known when it first appears; what BTF does not allow in a name becomes
/// '_', and a name that is taken gets the number as a suffix.
///
/// What the trace lacks (leaves, above all) is supplied so that the file is legal, and counted in losses(). Of
/// functions that are open in one task at a time 4096 are shown, of interrupts on one core 256. What runs at the end of
/// the trace terminates there.
class QUORVEX_API CBtfWriter : public CViewerWriter {
public:
    /// The name of the traced file and the wall clock at its first tick (as in 2026-08-22T10:15:00Z) become lines of
    /// the header where they are not empty.
    explicit CBtfWriter(std::ostream& out, std::string inputFile = {}, std::string creationDate = {});
    ~CBtfWriter() override;

protected:
    bool show(const CPacket& packet, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    bool writeFile() override;

private:
    class Model;

    std::string m_inputFile;
    std::string m_creationDate;
    platform::Owned<Model> m_model;
};

} // namespace Quorvex
