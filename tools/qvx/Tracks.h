#pragma once

#include "Json.h"
#include "Verbs.h"
#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TraceSpan.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// An interval, with what it is within counted.
struct Span {
    std::uint64_t from;
    std::uint64_t to;
    std::uint32_t name;
    std::uint32_t depth;
    bool isOpen; ///< its end is not told
};
struct Mark {
    std::uint64_t at;
    std::uint32_t name;
    std::uint64_t text; ///< as Tracks::keep() tells
};
struct Value {
    std::uint64_t at;
    std::uint64_t bits; ///< of a counter's value, of a double in other tracks
};

/// The order of tracks on the page.
enum class Rank : std::uint8_t { Marks, Cores, Processes, Interrupts, Calls, States, Signals, Curves };

/// Something that is shown over time: has one of the three.
struct Track {
    Rank rank;
    const char* sort;
    const char* table; ///< of the names
    std::string title;
    std::uint32_t place = ~0U; ///< thread or core
    bool isCounter = false;    ///< the values are a counter's
    std::uint32_t number = 0;  ///< by which it is told from all others
    /// In the order in which they end: what is inside of one stands before it.
    std::vector<Span> spans{};
    std::vector<Mark> marks{};
    std::vector<Value> values{};
    std::optional<Span> last{}; ///< of spans that follow each other, which ends where the next one begins
    Quorvex::CounterSort counter{};
    bool hasReals = false; ///< some of its doubles are no whole numbers that are exact

    /// Its values are shown as doubles.
    bool isReal() const { return hasReals || (isCounter && counter.type() == Quorvex::CounterType::Double); }
};

/// A table of names, in which numbers stand in the order of their first use.
class NameTable {
public:
    std::uint32_t indexOf(std::uint64_t number) {
        return m_indices.findOrMake(number, [&] {
            m_numbers.push_back(number);
            return static_cast<std::uint32_t>(m_numbers.size() - 1);
        });
    }
    const std::vector<std::uint64_t>& numbers() const { return m_numbers; }

private:
    Quorvex::Directory<std::uint64_t, std::uint32_t> m_indices;
    std::vector<std::uint64_t> m_numbers;
};

/// The same of texts.
class TextTable {
public:
    std::uint32_t indexOf(std::string_view text) {
        const auto at = m_indices.find(text);
        if (at != m_indices.end())
            return at->second;
        m_texts.emplace_back(text);
        const auto index = static_cast<std::uint32_t>(m_texts.size() - 1);
        m_indices.emplace(text, index);
        return index;
    }
    /// Shows another text in the place of one.
    void show(std::uint32_t index, std::string text) { m_texts[index] = std::move(text); }
    const std::deque<std::string>& texts() const { return m_texts; }

private:
    std::deque<std::string> m_texts;
    std::map<std::string, std::uint32_t, std::less<>> m_indices;
};

/// All that a page shows of traces. What becomes of the tracks is for who derives from it.
class Tracks {
public:
    /// `batch`: how many things a track holds before it is told of by take().
    Tracks(std::vector<std::string> files, std::size_t batch) : m_files(std::move(files)), m_batch(batch) {}
    Tracks(const Tracks&) = delete;
    Tracks& operator=(const Tracks&) = delete;

    /// Reads all traces; damage is told, noted, and in the exit code.
    ExitCode read();

protected:
    virtual ~Tracks() = default;

    /// Keeps a text, which is not empty; the number that a mark has it by, which is not 0.
    virtual std::uint64_t keep(std::string_view text) = 0;
    /// A track holds a batch, which may be taken out of it.
    virtual void take(Track& track) = 0;
    /// Takes a track with the last of what it holds.
    virtual void finish(Track&& track, std::uint32_t file, std::uint64_t frequency) = 0;

    /// The tick that others are told from.
    std::uint64_t first() const { return m_span.first == Quorvex::kUnknown64 ? 0 : m_span.first; }
    static JsonLine record(const char* what) { return JsonLine().add("record", std::string_view(what)); }
    /// The line of a track.
    static JsonLine lineOf(const Track& track, std::uint32_t file, std::uint64_t frequency, std::uint64_t count);
    /// The line of all.
    JsonLine title(const std::string& title, const std::vector<std::string>& given) const;
    /// Lines that tell all but that, the texts and the tracks.
    std::string lines(const std::vector<std::string>& given);

private:
    class Reading;

    /// The same, where that is not known before.
    void look(const Quorvex::CTraceCursor& packet) {
        if (m_span.first == Quorvex::kUnknown64 || m_span.frequency == 0)
            m_span.look(packet);
    }

    std::vector<std::string> m_files;
    std::size_t m_batch;
    Quorvex::TraceSpan m_span;
    Quorvex::CTraceNames m_names;
    NameTable m_functions;
    std::map<std::uint32_t, std::string> m_places; ///< of functions: a file and a line
    std::map<std::string, TextTable> m_tables;     ///< of names that are known at once
    std::map<Quorvex::tagTCode, std::uint64_t> m_unshown;
    std::vector<std::string> m_notes;
    std::uint32_t m_tracks = 0;
};

} // namespace qvx
