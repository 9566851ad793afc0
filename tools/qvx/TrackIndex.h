#pragma once

#include "Tracks.h"
#include "quorvex/platform/MappedFile.h"
#include "quorvex/platform/OutputFile.h"

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qvx {

/// One of what a track holds.
struct Item {
    std::uint64_t at;
    std::uint64_t more; ///< of a span its length, of a mark its text, of a value its bits
    std::uint32_t name;
    bool isOpen;   ///< its end is not told
    bool isFirst;  ///< of what is within the same span
    bool hasInner; ///< there is something within it

    std::uint64_t end() const { return at + more; }
};

/// All tracks of some traces in a file, of which any part is found at once. A track has rows: its spans have one for
/// each depth, marks and values have one. A row has blocks, which follow each other in time. As each block tells its
/// longest span, or its least and greatest value, a picture takes no more work than it has pixels.
///
/// The file is a copy of what the traces hold, for the system that has written it; whoever throws it away loses the
/// time that making it took. It is input as any other: one that is cut, or damaged anywhere but within the items and
/// texts, is not opened; and whatever it holds, nothing outside of it is looked at, and no question takes more than
/// time in proportion to its size.
class TrackIndex {
public:
    /// An item as it stands in a file. The lowest bits of `name` are isOpen, isFirst and hasInner.
    struct Packed {
        std::uint64_t at;
        std::uint64_t more;
        std::uint32_t name;
        std::uint32_t index; ///< within its block
    };
    struct Block {
        std::uint64_t offset; ///< of its items
        std::uint64_t place;  ///< of the first of them within the row
        std::uint64_t first;  ///< when the first one begins
        std::uint64_t last;   ///< when the last one ends
        std::uint64_t names;  ///< the bits of all their names
        std::uint32_t count;
        std::uint32_t isWide; ///< its numbers have 64 bits, not 32
        Packed chosen[2];     ///< of spans the longest; of values the least and the greatest; of marks the first
    };
    struct Row {
        std::uint64_t blocks; ///< where they stand
        std::uint64_t blockCount;
        std::uint64_t place; ///< of its first item within the track
        std::uint64_t count; ///< of items
    };
    enum class Form : std::uint32_t { Spans, Marks, Numbers, Reals, WholeReals };
    struct TrackEntry {
        std::uint64_t rows; ///< where they stand
        std::uint32_t rowCount;
        Form form; ///< WholeReals: doubles, all of which are whole
        std::uint64_t frequency;
        std::uint32_t isCalls; ///< functions of a thread
        std::uint32_t table;   ///< which of tables()
    };

    /// Whether an index may be written there: nothing else is there.
    static bool canReplace(const std::string& path);
    /// Opens the index of what the key tells. False where there is none, or one of something else.
    bool open(const std::string& path, const std::string& key);

    std::span<const TrackEntry> tracks() const { return {at<TrackEntry>(m_header.tracks), m_header.trackCount}; }
    std::span<const Row> rowsOf(const TrackEntry& track) const { return {at<Row>(track.rows), track.rowCount}; }
    std::span<const Block> blocksOf(const Row& row) const { return {at<Block>(row.blocks), row.blockCount}; }
    /// An item of a block.
    Item item(const Block& block, std::uint32_t index) const {
        const char* const bytes = m_file.memory() + block.offset;
        const std::size_t count = block.count, names = block.isWide != 0 ? 16 * count : 8 * count;
        const auto number = [bytes](auto type, std::size_t place) {
            std::memcpy(&type, bytes + place * sizeof type, sizeof type);
            return type;
        };
        const auto name = number(std::uint32_t{}, names / 4 + index);
        return block.isWide != 0 ? unpacked({block.first + number(std::uint64_t{}, index),
                                             number(std::uint64_t{}, count + index), name, index})
                                 : unpacked({block.first + number(std::uint32_t{}, index),
                                             number(std::uint32_t{}, count + index), name, index});
    }
    /// A bit for a name, which it has in common with others.
    static constexpr std::uint64_t bitOf(std::uint64_t name) { return std::uint64_t{1} << name % 64; }
    static Item unpacked(const Packed& packed) {
        return {packed.at,
                packed.more,
                packed.name >> kFlags,
                (packed.name & kIsOpen) != 0,
                (packed.name & kIsFirst) != 0,
                (packed.name & kHasInner) != 0};
    }
    /// A text of a mark.
    std::string_view text(std::uint64_t number) const;
    /// The lines that tell the page of all but what the tracks hold.
    std::string_view lines() const { return {at<char>(m_header.lines), m_header.linesSize}; }
    std::uint64_t base() const { return m_header.base; } ///< the tick that the page tells others from
    /// Tables of names that tracks have, and the names of one.
    static const std::vector<std::string>& tables();
    const std::vector<std::string>& namesOf(std::uint32_t table) const { return m_names[table]; }

private:
    friend class TrackIndexWriter;

    static constexpr unsigned kFlags = 3;
    static constexpr std::uint32_t kIsOpen = 1, kIsFirst = 2, kHasInner = 4;
    static constexpr std::uint32_t kBlock = 512;                   ///< items at most
    static constexpr std::uint64_t kMagic = 0x3230'7864'6e69'7671; ///< the upper two bytes are a version

    struct Header {
        std::uint64_t magic;
        std::uint64_t size;   ///< of the file
        std::uint64_t places; ///< behind the items and texts, where what tells their places begins
        std::uint64_t check;  ///< a CRC-32 of what stands there, and of this header without it
        std::uint64_t tracks;
        std::uint64_t trackCount;
        std::uint64_t lines;
        std::uint64_t linesSize;
        std::uint64_t key;
        std::uint64_t keySize;
        std::uint64_t base;
    };

    template <class What> const What* at(std::uint64_t offset) const {
        return reinterpret_cast<const What*>(m_file.memory() + offset);
    }
    /// Whether so many of these can stand there.
    template <class What> bool holds(std::uint64_t offset, std::uint64_t count) const {
        return offset % alignof(What) == 0 && offset <= m_header.size &&
               count <= (m_header.size - offset) / sizeof(What);
    }
    /// With that of what stands behind the items.
    static std::uint64_t checkOf(Header header, std::uint64_t places);
    bool isWhole() const;

    Quorvex::platform::MappedFile m_file;
    Header m_header{};
    std::vector<std::vector<std::string>> m_names;
};

/// Makes an index while it reads the traces. Memory grows with names and blocks, not with what is in these. Unless one
/// thread is to do all, another one puts into rows what has been read, and writes it.
class TrackIndexWriter : public Tracks {
public:
    TrackIndexWriter(const std::vector<std::string>& files, Quorvex::platform::OutputFile& file, bool hasThread);
    ~TrackIndexWriter() override;

    /// Writes what is known behind the last trace. False when the file could not be written; its error() tells why.
    bool finish(const std::string& its, const std::vector<std::string>& given, const std::string& key);

private:
    struct OpenRow {
        std::vector<TrackIndex::Packed> items; ///< of the next block
        std::vector<TrackIndex::Block> blocks;
        std::uint64_t count = 0;
        bool hasItems = false; ///< within the span that is open in the row above
    };
    struct OpenTrack {
        std::vector<OpenRow> rows;
        std::vector<std::uint64_t>* counts = nullptr; ///< of names
    };
    struct Written {
        Rank rank;
        JsonLine line;
        TrackIndex::TrackEntry entry;
        std::vector<OpenRow> rows;
    };

    std::uint64_t keep(std::string_view text) override;
    void take(Track& track) override;
    void finish(Track&& track, std::uint32_t file, std::uint64_t frequency) override;

    /// What the other thread does.
    void work();
    /// Waits until all batches are in their rows. Throws what went wrong with them.
    void finishBatches();
    void putIntoRows(const Track& batch);
    void writeBlock(OpenRow& row, const Track& track);
    /// Writes bytes where these may stand, and tells where that is. For both threads.
    std::uint64_t put(const void* bytes, std::size_t size);

    std::mutex m_writing; ///< guards the five below
    Quorvex::platform::OutputFile& m_file;
    std::string m_bytes; ///< which are not in the file yet
    std::uint64_t m_size = 0;
    std::optional<std::uint64_t> m_check; ///< of what has been put behind the items
    bool m_hasFailed = false;
    std::map<std::uint32_t, OpenTrack> m_open;
    OpenTrack* m_last = nullptr; ///< that of the batch before
    std::uint32_t m_lastNumber = 0;
    std::map<std::string, std::vector<std::uint64_t>> m_counts; ///< how often names are used, by table
    std::vector<Written> m_tracks;

    std::mutex m_handing; ///< guards what is below
    std::condition_variable m_changed;
    std::deque<Track> m_batches;
    bool m_isBusy = false; ///< with the batch before
    bool m_ends = false;
    std::exception_ptr m_error;
    std::thread m_thread;
};

} // namespace qvx
