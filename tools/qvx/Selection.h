#pragma once

#include "quorvex/analysis/TraceSpan.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {
class CPacket;
class CTraceCursor;
} // namespace Quorvex

namespace qvx {

class Verb;

/// Which packets of traces a verb is for. The options that tell it are the same for every verb that has them, and stand
/// in Selection.cpp alone.
///
/// begin() comes first, then takes() for each packet, in their order: also of those that are taken for another reason,
/// because names and processes are learned from them.
class Selection {
public:
    /// The options, of which a verb may have a part.
    enum Part : unsigned {
        From = 1, ///< --from
        To = 64,  ///< --to
        Time = From | To,
        Place = 2,                            ///< --core, --thread and --process
        Kind = 4,                             ///< --kind
        Name = 8,                             ///< --name
        Limit = 16,                           ///< --limit
        Tail = 32,                            ///< --tail
        OfTrace = Time | Place | Kind | Name, ///< for those who make a trace of it
        Packets = OfTrace | Limit | Tail,
    };

    Selection();
    ~Selection();
    /// The same options, for traces of their own, for which it has yet to begin().
    Selection(const Selection& told);
    Selection& operator=(const Selection&) = delete;

    void addTo(Verb& verb, unsigned parts = Packets);

    /// As --to tells, for a verb that has taken it itself.
    void endAt(const std::string& time);

    /// Unless kinds are asked for, leaves out definitions and what only frames a trace, for those who show what
    /// happened; unless kinds or names are, also messages that tell of a recorded program (RecordedFact).
    void preferHappenings();

    /// Turns what is told into ticks and numbers for these files, of which it looks at the beginnings, or where a
    /// moment counts from the end, at all of them. Throws Misuse and Failure. What standard input begins with is
    /// learned while it is read.
    void begin(const std::vector<std::string>& files);
    /// The same for a verb that needs to know when its traces begin, and their clock, in any case.
    void beginWithClock(const std::vector<std::string>& files);
    /// The same for a verb that needs from() and to() before it reads.
    void beginWithTicks(const std::vector<std::string>& files);
    /// When the traces begin, and their clock, as far as that was asked for or has been seen since.
    const Quorvex::TraceSpan& span() const;

    bool takesAll() const; ///< every packet is selected, but for limits
    bool isAsked() const;  ///< something but limits is told
    bool asksName() const; ///< names are told
    bool isOfTime() const; ///< what is told is about time alone
    /// Whether each packet tells by itself if it is selected. takes() may be asked by several threads then, of packets
    /// in any order.
    bool isOfPackets() const;
    std::uint64_t from() const; ///< the first tick that is selected; known after begin(), but for standard input
    std::uint64_t to() const;   ///< the first one behind; likewise. All ones: to the end

    /// Whether the packet of the trace with that number is selected. Packets without a tick are where the last one with
    /// a tick was.
    bool takes(std::size_t file, const Quorvex::CTraceCursor& packet);
    /// The same at whatever time, of the packet that takes() was asked about last.
    bool takesAnyTime(std::size_t file, const Quorvex::CTraceCursor& packet);
    /// The part of takes() which is about --from and --to, for those who ask for the rest later, and pass() where there
    /// is no rest to ask for.
    bool isInTime(std::size_t file, const Quorvex::CTraceCursor& packet);
    /// The rest, for a packet in absolute form.
    bool takesRest(std::size_t file, const Quorvex::CPacket& packet);
    /// Whether the packet of a trace that was asked about last is behind --to.
    bool isBehind(std::size_t file) const;
    void pass(std::size_t file, const Quorvex::CTraceCursor& packet); ///< learns from a packet, which is not taken
    /// The part of it which is about --core, --thread and --process; what tells no core is everywhere.
    bool takesPlaceOf(std::size_t file, const Quorvex::CTraceCursor& packet);
    bool asksPlace() const; ///< not every place is selected
    /// Whether something with that name is selected.
    bool takesName(std::string_view name) const;

    std::uint64_t limit() const; ///< as many are wanted at most; all ones: all
    std::uint64_t tail() const;  ///< so many of the last ones are wanted; all ones: all

private:
    struct State;

    std::unique_ptr<State> m_state;
};

} // namespace qvx
