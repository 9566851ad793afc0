#pragma once

#include "TraceInput.h"
#include "TraceSinks.h"
#include "quorvex/analysis/TracePiece.h"
#include "quorvex/analysis/TraceState.h"
#include "quorvex/stream/Contexts.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <istream>
#include <limits>
#include <memory>
#include <optional>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

class Selection;

/// Puts a part of a trace into a piece, packet by packet: first what a reader has to know where the part begins, then
/// its packets. The part is what a selection takes, up to the first packet that is behind --to, or what stands between
/// two places.
class TracePart {
public:
    using Places = std::pair<std::uint64_t, std::uint64_t>;

    /// Without `state` it begins with nothing but what relative packets are relative to.
    TracePart(Quorvex::TraceFile& whole, Quorvex::TracePiece& piece, bool state) : m_whole(whole), m_piece(piece) {
        if (state)
            m_state.emplace(Quorvex::TraceState::Start::OfTrace);
    }
    /// The selection has been begun, and knows the trace by that number.
    void select(Selection& selection, std::size_t number) {
        m_selection = &selection;
        m_number = number;
    }
    void select(Places places) { m_places = places; }
    /// Has the piece get pages if the trace has some.
    void keepLayout() { m_layout.emplace(); }

    /// Goes on by a packet of the trace; false when all has been put.
    bool advance();
    /// False where the piece has refused what comes of the packet at offset().
    bool good() const { return m_isGood; }
    std::uint64_t offset() const { return m_offset; }
    /// Bytes of what the part begins with.
    std::uint64_t front() const { return m_front; }
    /// Whether the part ends before the trace does.
    bool isBehind() const { return m_isBehind; }

private:
    enum Taken : std::uint8_t {
        Before, ///< the part, if that has not begun
        Within, ///< it
        Behind, ///< it
        Never,  ///< in no part
    };
    Taken look(const Quorvex::CTraceCursor& packet);
    /// Whether only some of the packets between two places are wanted.
    bool isSelective() const;
    void begin();

    Quorvex::TraceFile& m_whole;
    Quorvex::TracePiece& m_piece;
    Selection* m_selection = nullptr;
    std::size_t m_number = 0;
    Places m_places{0, std::numeric_limits<std::uint64_t>::max()};
    std::optional<Quorvex::TraceState> m_state;
    std::optional<LayoutSeen> m_layout;
    Quorvex::TraceFrame m_frame;
    Quorvex::CContexts m_before; ///< what the packet that is looked at is relative to
    std::uint64_t m_offset = 0;
    std::uint64_t m_front = 0;
    bool m_isIn = false;
    bool m_isBehind = false;
    bool m_isGood = true;
};

/// The bytes of a part of a trace, made as they are read.
class PartBytes : std::streambuf {
protected:
    PartBytes(std::unique_ptr<Quorvex::TraceFile> whole, Selection& selection, std::size_t number, bool pauses);
    ~PartBytes() override;

    std::istream& stream() { return m_stream; }
    const Quorvex::TraceFile& wholeTrace() const { return *m_whole; }
    /// Throws what has ended the bytes early, if anything has.
    void throwFailure() const;

private:
    struct Sink;

    int_type underflow() override;
    void fill();

    std::unique_ptr<Quorvex::TraceFile> m_whole;
    std::unique_ptr<Sink> m_sink;
    Quorvex::TracePiece m_piece;
    TracePart m_part;
    bool m_pauses;
    bool m_isEnded = false;
    std::exception_ptr m_failure;
    std::istream m_stream;
};

/// What is selected of a trace, as a trace: that which `qvx cut` makes of it with the same options. Its offsets are its
/// own; damage and the end are those of whole().
class SelectedTrace : PartBytes, public Quorvex::TraceFile {
public:
    /// The selection, which must outlive this, has been begun, and knows the trace by that number. One that pauses
    /// keeps the trace open only while it is read.
    SelectedTrace(std::unique_ptr<Quorvex::TraceFile> whole, Selection& selection, std::size_t number, bool pauses)
        : PartBytes(std::move(whole), selection, number, pauses), TraceFile(wholeTrace().name(), stream()) {}

    const Quorvex::TraceFile& whole() const { return wholeTrace(); }

private:
    [[noreturn]] void failToRead() const override;
};

/// What help says of it.
inline constexpr char kPartHelp[] =
    "Of what is selected there is what `qvx cut` makes of it: what has been told before and holds there stands in\n"
    "front (names, the clock, open calls with their times, last values).";

/// Opens traces for a verb that reads what is selected of them. The selection has been begun for the files.
std::unique_ptr<Quorvex::TraceFile> openSelected(const std::vector<std::string>& files, std::size_t number,
                                                 Selection& selection);
/// The same of one that is open already, of so many.
std::unique_ptr<Quorvex::TraceFile> selected(std::unique_ptr<Quorvex::TraceFile> trace, std::size_t number,
                                             std::size_t count, Selection& selection);

} // namespace qvx
