#pragma once

#include "quorvex/analysis/TraceReport.h"
#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"
#include "quorvex/stream/TraceCursor.h"
#include "quorvex/stream/TraceParts.h"
#include "quorvex/stream/TraceTextReader.h"

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

namespace Quorvex {

class ReadWatch;

/// Gives packets back to the packet factory.
struct ReleasePacket {
    void operator()(CPacket* packet) const { delete packet; }
};
/// A packet that is owned.
using PacketPointer = std::unique_ptr<CPacket, ReleasePacket>;

/// The packet that a cursor is at, as an object in absolute form. Throws std::bad_alloc.
QUORVEX_API PacketPointer absoluteAt(const CTraceCursor& packet);

/// Reads one trace packet by packet, as they are, with their places in it: a file in the binary form, with the page
/// file that may belong to it, or a plain table, which is told by its first bytes. Damage is stepped over and counted.
/// A trace is cut if it ends within a packet or its text, or has begun a frame and not ended it.
///
/// Whatever fails throws a TraceError, but for lack of memory, which is another std::exception. Used by one thread at a
/// time.
class QUORVEX_API TraceFile {
public:
    /// Looks at the file, which is opened again by next() if it is a regular one. With a stream, which must outlive
    /// this and need not go back, that is read in its place, and the path is its name in reports. Throws when the file
    /// cannot be opened, or is no trace.
    explicit TraceFile(std::string path, std::istream* stream = nullptr);
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;
    virtual ~TraceFile();

    /// Goes to the next packet, which cursor() then shows; false at the end.
    bool advance();
    /// The packet that advance() has gone to, where it stands; for a table, in the binary form of its row. Holds until
    /// the next one is asked for, or pause().
    const CTraceCursor& cursor() const { return *m_cursor; }
    /// Goes through all packets that are left, with `visit(part, cursor)` for each, by several threads where the file
    /// is large; otherwise as Quorvex::walkInParts does. After an exception nothing more can be asked for. Where the
    /// shares tell where to end, it can be gone on from there.
    template <class Part, class Visit>
    void walkInParts(Part& whole, const Visit& visit, const TraceShares& shares = {});
    /// The next packet as an object; null at the end.
    PacketPointer next();
    /// Where the packet that next() gave begins. In a table, where it would in the binary form of what has been read.
    std::uint64_t offset() const { return m_offset; }
    /// Where the packet ends, with the texts that follow it.
    std::uint64_t end() const { return m_end; }
    /// Bytes of the whole trace, or of the table; known once next() has given null.
    std::uint64_t size() const { return m_size; }

    const std::string& name() const { return m_report.file; }
    /// How reading went so far.
    const TraceReport& report() const { return m_report; }
    /// Of a table, the first row that could not be read; null of any other trace.
    const TraceTextReader::Error* tableError() const;

    /// Has the trace begin at a position of the file, where a page begins, or which a stream has in place of 0. To be
    /// said before the first packet is asked for.
    void startAt(std::uint64_t position) { m_offset = m_end = position; }
    /// Closes the file until the next packet is asked for, and gives back the memory of its reader. False where that is
    /// not possible, because it cannot be gone back in.
    bool pause();
    /// Reads `bytes` at a time, in place of kBlockSize, from when it is opened next. For those who pause after a few
    /// packets, or have many streams.
    void readAtATime(unsigned bytes) { m_block = bytes; }
    /// Has no more threads than that walk in parts, where that is not said there; 0: one a processor.
    void shareAmong(unsigned threads) { m_threads = threads; }
    /// Tells the watch, which must outlive this, of the bytes of a binary trace as they are read. To be said before the
    /// first packet is asked for.
    void watchBy(ReadWatch& watch) { m_watch = &watch; }

protected:
    /// A stream, which must outlive this, of what is known to be a trace in the binary form: it need not be looked at.
    TraceFile(std::string name, std::istream& trace);
    /// Throws why the file, or the stream, could not be read: a TraceError, unless a stream knows better.
    [[noreturn]] virtual void failToRead() const;

private:
    class Input;
    struct Binary;
    struct Table;

    /// What packets tell of the end of their trace.
    struct Signs {
        void look(const CTraceCursor& packet) {
            if (packet.TraceCode() >= TraceEnabled && packet.TraceCode() <= EndOfTrace) // no look into the table
                lookAtFrame(packet);
            const CTraceCursor::Text text = packet.textState();
            if (text == CTraceCursor::Text::Absent || text == CTraceCursor::Text::Open) {
                textOf = packet.TraceCode();
                textEnd = packet.end();
                breaksOff = text == CTraceCursor::Text::Open;
            }
        }
        QUORVEX_API void lookAtFrame(const CTraceCursor& packet);
        void closeFrame(std::uint64_t end);
        /// Goes on with those of the packets behind.
        QUORVEX_API void join(const Signs& next);

        std::uint64_t frameEnd = 0; ///< of the last frame, as it says; 0 where it does not
        std::uint64_t closedAt = 0; ///< the end of a frame that has begun before all this; 0 if there is none
        std::uint64_t lacking = 0;  ///< bytes that ended frames have less than they say
        std::uint64_t textEnd = 0;  ///< of the last packet behind which text may follow that belongs to it
        tagTCode textOf = Invalid;  ///< that packet
        bool breaksOff = false;     ///< its text does
        bool isFrameOpen = false;
        bool isEnded = false; ///< by the end of a frame, or of the trace
    };
    template <class Part> struct SignedPart {
        Part part{};
        Signs signs;
        void join(SignedPart&& next) {
            part.join(std::move(next.part));
            signs.join(next.signs);
        }
    };

    /// Opens the file for the first time: it may be anything.
    void open();
    /// Opens a file that is known to be a trace, where the last packet has ended, or the stream.
    void openBinary();
    /// Opens a regular file that is known to be a trace at a position.
    platform::Owned<Binary> openAt(std::uint64_t position, const CContexts& contexts) const;
    [[noreturn]] void fail(std::string reason) const;
    PacketPointer nextOfTable();
    bool advanceInTable();
    /// Counts the rows of the table that could not be read and that stand before what is at m_end.
    void noteRows();
    /// Walks through a binary trace as far as it is to; what the packets tell of its end comes to stand in `signs`.
    void walkRest(detail::PartsWork& work, const TraceShares& shares, const Signs& signs);
    /// Takes note of how the walk through a binary trace has ended.
    void finish(const TraceWalk& walk);
    /// Takes over what has been stepped over since the file was opened.
    void noteDamage(const TraceDamage& damage);

    TraceReport m_report;
    std::istream* m_stream;                 ///< that is read in place of a file, or null
    platform::Owned<Input> m_input;         ///< the open file, but for a trace in a regular one
    platform::Owned<Binary> m_open;         ///< the open trace; null while paused, and at the end
    platform::Owned<Table> m_table;         ///< of a table, its reader
    const CTraceCursor* m_cursor = nullptr; ///< that of either
    TraceDamage m_before;                   ///< what had been stepped over before the last pause,
    CContexts m_contexts;                   ///< and what relative packets were relative to
    std::uint64_t m_offset = 0;
    std::uint64_t m_end = 0;
    std::uint64_t m_size = 0;
    std::uint64_t m_bytesNoted = 0; ///< of damage since the file was opened
    ReadWatch* m_watch = nullptr;
    unsigned m_block = kBlockSize;
    unsigned m_threads = 0;
    bool m_isRegular = false; ///< the file can be gone back in
    bool m_isAhead = false;   ///< advance() has gone to a packet that next() could not make
    Signs m_signs;
};

template <class Part, class Visit>
void TraceFile::walkInParts(Part& whole, const Visit& visit, const TraceShares& shares) {
    if (m_table) {
        while (m_end < shares.until && advance())
            visit(whole, cursor());
    } else if (m_report.end == TraceEnd::Unread) {
        using Signed = SignedPart<Part>;
        const auto look = [&visit](Signed& part, const CTraceCursor& packet) {
            part.signs.look(packet);
            visit(part.part, packet);
        };
        Signed all{std::move(whole), m_signs};
        detail::PartsOf<Signed, decltype(look)> work(all, look);
        walkRest(work, shares, all.signs);
        whole = std::move(all.part);
    }
}

} // namespace Quorvex
