#pragma once

#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

/// What writers for viewers with tracks do alike: such a viewer shows slices, instants and values, each on a track.
///
/// - Of a thread: the calls of its functions, in each process by itself; its events, gaps and whatever else happens.
/// - Of a core: the threads that run there, the processes that are entered, the interrupts.
/// - Of a state machine: the states of each instance.
/// - Of a counter or variable: its values; of a counter with indices, those of each cell.
/// - Of signals: the values of the lines of each signal, or of a bus without signals.
/// - Of messages, buses and so on: what belongs to no thread.
///
/// Slices of a track are nested or lie one behind the other. A packet without a case of its own is an instant that
/// bears the name of its kind and has its fields; so every kind is shown by those who take instants.
///
/// The file is made from what has been noted of the whole trace, so names, the clock and what values are like are
/// known when it is written. Times are in nanoseconds from the first known tick; without a known frequency a tick
/// counts as one. They rise within the slices of a track; a track may come later in the file than another that lies
/// behind it.
///
/// What the trace lacks (leaves, above all) is supplied and counted in losses(). Of what is entered in one place at a
/// time 4096 are shown. What is open at the end of its trace ends with the last packet of its thread or core.
class QUORVEX_API CTrackWriter : public CViewerWriter {
public:
    ~CTrackWriter() override;

    static constexpr std::uint64_t kUnitsPerSecond = 1'000'000'000; ///< of times

    /// What a track is of.
    enum class Sort : std::uint8_t {
        Thread,
        CoreThreads,    ///< which thread runs on a core
        CoreProcesses,  ///< the processes that are entered there
        CoreInterrupts, ///< the interrupts
        States,
        Counter,
        Variable,
        Signal,
        Messages,
        Other,
    };
    /// What happens on a track.
    enum class Type : std::uint8_t { Begin, End, Instant, Value };
    /// What a value or a field is.
    enum class Form : std::uint8_t { None, Unsigned, Signed, Real, Text };

    /// One that there is.
    struct Track {
        Sort sort;              ///< what it is of
        std::uint32_t group;    ///< of threads, see groups(); 0 of all other tracks
        std::uint32_t number;   ///< of the thread or core
        std::string name = {};  ///< as it is known at the end of the trace
        std::string unit = {};  ///< of a counter
        Form form = Form::None; ///< of all its values: numbers of one sort, or else texts
    };
    /// A field of what happens, or a value.
    struct Field {
        std::string_view name;
        Form form = Form::None;     ///< which of the members below it has
        std::uint64_t number = 0;   ///< of a Real, its bits
        std::string_view text = {}; ///< of a Text
    };
    static constexpr std::uint32_t kNoLabel = ~std::uint32_t{0}; ///< of Fact
    static constexpr std::uint32_t kNoTrack = ~std::uint32_t{0}; ///< likewise
    /// What happens. Valid during the call that is told of it.
    struct Fact {
        Type type;                  ///< what it is
        std::uint32_t track;        ///< its number
        std::uint32_t label;        ///< number of the name; kNoLabel for a name that is this one's alone
        std::string_view name;      ///< of an instant or a slice, also where it ends
        std::uint64_t time;         ///< nanoseconds
        Field value = {};           ///< of a Value
        std::string_view more = {}; ///< its fields, for eachField
        /// Of a value, the track of the thread that tells it; kNoTrack for signals.
        std::uint32_t teller = kNoTrack;
        bool isSupplied = false; ///< of an End that no packet tells: a leave is missing, or the trace ends before it
    };

protected:
    /// How a writer wants to be told.
    struct Wishes {
        bool instants = true;      ///< else what is one is counted as lost
        bool values = true;        ///< likewise
        bool textsAsSlices = true; ///< values that are texts are told as slices with that name
        bool byTrack = false;      ///< all of a track, then all of the next one; else all as it happened
    };
    CTrackWriter(std::ostream& out, ViewerOptions options, Wishes wishes);

    // The file is written by these, in this order.
    virtual void startFile() = 0;             ///< puts what stands before all facts
    virtual void startTrack(std::uint32_t) {} ///< a track's facts come now; for those only who are told by track
    virtual void write(const Fact& fact) = 0; ///< puts a fact
    virtual void endTrack(std::uint32_t) {}   ///< all facts of a track have come; as startTrack
    virtual void endFile() = 0;               ///< puts what stands behind all facts

    // What is known while the file is written.
    const std::vector<Track>& tracks() const;       ///< by their numbers
    const std::vector<std::string>& labels() const; ///< names, by their numbers
    /// Names of the groups that threads stand in: 1 for what runs in no process, one for each process in which
    /// functions are called. That of 0 is empty.
    const std::vector<std::string>& groups() const;
    std::uint64_t duration() const { return m_duration; } ///< the last time
    /// Calls `take` with each field.
    template <class Take> static void eachField(const Fact& fact, Take take) {
        for (std::string_view rest = fact.more; !rest.empty();)
            take(nextField(rest));
    }

    /// Room for the next characters of the file, `most` of them; ends() tells how many they are.
    char* room(std::size_t most) {
        if (most > static_cast<std::size_t>(m_textLimit - m_textEnd))
            makeTextRoom(most);
        return m_textEnd;
    }
    /// The file goes on behind what has been put into room.
    void ends(char* end) { m_textEnd = end; }
    /// Adds a text to the file.
    void add(std::string_view text);

private:
    class Names;
    class Notes;
    class Model;

    bool show(const CPacket& packet, std::uint64_t time) final;
    void endOf(unsigned process, std::uint64_t time) final;
    void end(std::uint64_t time) final;
    bool writeFile() final;
    std::uint64_t nanoseconds(std::uint64_t ticks) {
        const std::uint64_t clock = frequency();
        return clock == kUnitsPerSecond || clock == 0 ? ticks : unitsOf(ticks, kUnitsPerSecond);
    }
    void makeTextRoom(std::size_t most);
    static Field nextField(std::string_view& rest);

    Wishes m_wishes;
    platform::Owned<Names> m_names;
    platform::Owned<Notes> m_notes;
    platform::Owned<Model> m_model;
    std::uint64_t m_duration = 0;
    std::vector<char> m_text;    ///< what is not yet in the file,
    char* m_textEnd = nullptr;   ///< which ends there,
    char* m_textLimit = nullptr; ///< and the end of its room
    bool m_isWritten = true;     ///< all that was handed to the file
};

} // namespace Quorvex
