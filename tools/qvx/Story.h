#pragma once

#include "TimeText.h"
#include "Timeline.h"
#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TraceNames.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

/// How a value of a type is written, by what languages call their types.
std::string typedText(std::string_view type, std::string_view bytes);

/// A value of a counter.
struct CountedValue {
    std::uint32_t counter = 0;
    std::uint64_t bits = 0; ///< of values of any number of bytes, the first eight
    bool isTyped = false;   ///< it is none of those, and may be a number of any type (CounterSort)
};
/// What a packet tells of a counter; nothing of others.
std::optional<CountedValue> counterValueOf(const Quorvex::CPacket& packet);

/// Tells people what happened, a line a packet: when, on which core, in which thread, and what, as deep as the calls
/// are; behind what is left, how long it took.
class Story : public Timeline::Onlooker {
public:
    Story(std::ostream& out, TimeForm form, bool isColored, Selection& selection);

    /// When the traces begin, and their clock, as far as that is known.
    void tellTime(const Quorvex::TraceSpan& span) { m_time.tell(span); }
    void writeHead(std::ostream& out) const; ///< the line above the columns, as wide as names of threads so far
    /// Before the first packet is told: a line for each call that is open then and is selected, but for its time.
    std::string openCalls();
    void pass(std::size_t file, const Quorvex::CTraceCursor& packet) override;
    void pass(std::size_t file, const Quorvex::CPacket& packet, std::uint64_t tick) override;
    /// Tells a packet in absolute form. False when writing fails.
    bool tell(std::size_t file, const Quorvex::CPacket& packet, std::uint64_t tick);

private:
    struct Open {
        std::uint64_t id;
        std::uint64_t tick;
        std::uint32_t core;
        bool isTaken; ///< its enter would be selected, but for its time
    };
    using Stack = Quorvex::CallStack<Open>;
    /// Where things of a sort are entered in each other: functions in a thread, processes and interrupts on a core.
    struct Place {
        std::uint64_t file;
        std::uint32_t number;
        bool isCore;
        Quorvex::TextSort sort;

        bool operator==(const Place&) const = default;
        std::uint64_t hash() const {
            return file << 40 ^ std::uint64_t{number} << 8 ^ std::uint64_t{isCore} << 7 ^ std::uint64_t(sort);
        }
    };
    /// Whose columns stand in front of a line.
    struct Column {
        std::uint64_t file;
        std::uint32_t core;
        std::uint32_t thread;

        bool operator==(const Column&) const = default;
        std::uint64_t hash() const { return file << 40 ^ std::uint64_t{core} << 32 ^ thread; }
    };
    /// What a packet enters or leaves, if anything.
    struct Move {
        Quorvex::Step step = Quorvex::Step::None;
        Place place{};
        std::uint64_t id = 0;
        std::uint32_t core = 0;
    };

    static Place placeOf(std::size_t file, std::uint32_t core, std::uint32_t thread, Quorvex::TextSort sort);
    static Move moveOf(std::size_t file, const Quorvex::CPacket& packet, const Quorvex::CCoreContext* context);
    Stack& stackOf(const Place& place);
    /// Does a move. Of what is left, the time since it was entered; kUnknown64 where that is not known.
    std::uint64_t make(const Move& move, std::uint64_t tick, bool isTaken = false);
    void learn(std::size_t file, const Quorvex::CPacket& packet);
    /// What is known of the type of a counter.
    Quorvex::CounterSort& sortOf(std::size_t file, std::uint32_t counter);

    /// The name of what is called by an identifier in a file; empty where it has none.
    std::string_view knownName(std::size_t file, Quorvex::TextSort sort, std::uint64_t id);
    /// The same as it is shown, else the identifier.
    std::string nameOf(std::size_t file, Quorvex::TextSort sort, std::uint64_t id);
    /// The name of a function, as it is shown.
    const std::string& functionName(std::size_t file, std::uint64_t id);
    char* putMove(char* to, const Move& move, std::string_view name, std::uint64_t took) const;
    void appendPacket(std::size_t file, const Quorvex::CPacket& packet);
    void appendValue(std::size_t file, const Quorvex::Subject& subject, const Quorvex::NumberField& field);
    /// The columns of core and thread.
    const std::string& columnsOf(std::size_t file, std::uint32_t core, std::uint32_t thread);
    /// Room for a line, beside texts of that size.
    char* room(std::size_t texts);
    /// The colour, or nothing.
    std::string_view colored(std::string_view color) const { return m_isColored ? color : std::string_view(); }
    void write(std::string_view line);
    void noteMessage(std::size_t file, std::string_view text);
    void append(std::string_view color, std::string_view text);

    std::ostream& m_out;
    Selection& m_selection;
    TimeText m_time;
    bool m_isColored;
    std::string m_line;
    Quorvex::CTraceNames m_names;
    using Shown = Quorvex::Directory<std::uint64_t, std::string>;
    Shown m_functions; ///< their names as they are shown, by file and identifier, since the last definition
    Quorvex::Directory<Column, std::string> m_columns;
    const std::string* m_lastColumns = nullptr; ///< that were asked for last,
    Column m_lastColumn{};                      ///< and whose they are
    std::size_t m_nameWidth = 0;                ///< of the column of threads' names: that of the longest so far
    std::vector<char> m_room;
    Quorvex::Directory<std::uint64_t, Quorvex::CounterSort> m_counters; ///< by their numbers
    Quorvex::Directory<Place, Stack> m_stacks;
    Stack* m_last = nullptr;                                                ///< that was asked for last,
    Place m_lastPlace{};                                                    ///< and its place
    std::map<std::pair<std::size_t, std::uint32_t>, std::uint32_t> m_types; ///< of variables, by file and variable
};

} // namespace qvx
