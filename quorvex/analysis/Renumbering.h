#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstddef>
#include <cstdint>

namespace Quorvex {

/// Gives identifiers of several traces new numbers where they would mean two things in one trace. It is told all
/// definitions first, trace by trace, so that an identifier has one number from the first packet of its trace to the
/// last, wherever its definition stands:
///
/// - What two traces define alike has one number: by the same name, and with the same type, size, unit, lines and the
///   like, as far as both tell them. A trace that gives an identifier several names, or takes its definition back,
///   shares it with none that defines it too.
/// - What a trace does not define is what the traces define that are of its process. All are of one process but those
///   that give an identifier another name than the first process does: each of these is one of its own.
/// - The first that defines an identifier keeps its number. New ones are given from 0xfffffffe down; where there are
///   any, identifiers up there that nothing defines get new ones too.
///
/// Identifiers that are given no name (exceptions, types of events) stay, and so does the function with all ones, which
/// is none. Memory grows with the definitions. Used by one thread at a time.
class QUORVEX_API Renumbering {
public:
    /// New numbers are given down to that one.
    explicit Renumbering(std::uint32_t lowest = 0xFFF00000);
    ~Renumbering();

    /// Takes note of what an absolute packet of the trace that is noted defines, or takes back.
    void note(const CPacket& packet);
    /// What has been noted since the last call is all of a trace: the first is 0. To be called for each one, also
    /// without definitions.
    void endTrace();

    /// Gives the packet's identifiers the numbers of its trace. False where there is no number left for one; it is left
    /// as it is. To be called when all traces have been noted.
    bool change(CPacket& packet, std::size_t trace);
    /// How many new numbers have been given.
    std::uint64_t given() const;

private:
    class Numbers;

    platform::Owned<Numbers> m_numbers;
};

} // namespace Quorvex
