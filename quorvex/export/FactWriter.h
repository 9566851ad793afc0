#pragma once

#include "quorvex/export/TrackWriter.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Quorvex {

/// Writes what a trace amounts to as one table, for programs that reckon with it: a row for each call, run of a thread
/// on a core, process, interrupt, state, event and value. Packets tell when something begins and when it ends; a row
/// tells both, with the duration, and stands where it ends.
///
///     type                    call, run, process, interrupt, state; event (all that only happens); value
///     track                   where: "thread 7", "core 0", the counter's name
///     name                    of the function and so on; of a value there is none
///     start_ns, duration_ns   from the first known tick; start_ticks, duration_ticks where the clock is not known
///     depth                   how many others of its track it lies in
///     value, unit             of a value
///     fields                  all else that the packet tells
class QUORVEX_API CFactWriter : public CTrackWriter {
public:
    /// How the table is written.
    enum class Format : std::uint8_t {
        CSV,  ///< comma-separated values (RFC 4180, but with LF), with a row of titles; fields as name=value
        JSON, ///< an object a line; it has no members that tell nothing
    };
    CFactWriter(std::ostream& out, ViewerOptions options, Format format)
        : CTrackWriter(out, std::move(options), {.textsAsSlices = false}), m_format(format) {}

protected:
    void startFile() override;
    void write(const Fact& fact) override;
    void endFile() override {}

private:
    /// What has begun and not ended on a track.
    struct Open {
        std::uint64_t time;
        std::string fields;
    };
    /// Those behind type and track.
    enum Column : std::uint8_t { Name, Start, Duration, Depth, Value, Unit, Fields, kColumns };
    /// A short text, which is put at once with what stands behind it in its room.
    struct Title {
        char text[24] = {};
        std::size_t size = 0;
    };
    /// What is the same in all rows of a track: type and track, and the unit with what stands before it.
    struct Heads {
        std::string ofSlices, ofEvents, ofValues, unit;
    };

    void writeRow(const Fact& fact, std::uint64_t start, std::size_t depth, std::string_view fields);
    std::string fieldsOf(const Fact& fact) const;
    std::string quoted(std::string_view text) const;
    void append(std::string& to, const Field& field) const;

    Format m_format;
    Title m_before[kColumns];              ///< what stands before each column
    std::vector<std::vector<Open>> m_open; ///< by tracks
    std::vector<std::string> m_names;      ///< of labels, as they stand in rows, with what is before them
    std::vector<Heads> m_heads;            ///< by tracks
    std::string m_own;                     ///< a name that is a row's alone, or its value; kept for its memory
};

/// The table as comma-separated values.
class QUORVEX_API CCsvWriter : public CFactWriter {
public:
    explicit CCsvWriter(std::ostream& out, ViewerOptions options = {})
        : CFactWriter(out, std::move(options), Format::CSV) {}
};

/// The table as lines of JSON.
class QUORVEX_API CJsonWriter : public CFactWriter {
public:
    explicit CJsonWriter(std::ostream& out, ViewerOptions options = {})
        : CFactWriter(out, std::move(options), Format::JSON) {}
};

} // namespace Quorvex
