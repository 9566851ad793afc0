#include "TrackIndex.h"

#include <algorithm>
#include <array>
#include <bit>
#include <filesystem>
#include <fstream>
#include <rapidjson/document.h>
#include <utility>
#include <zlib.h>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::size_t kBatch = 1024;                 ///< of a track, before it is put into rows
constexpr std::size_t kWaiting = 64;                 ///< batches that wait for the other thread
constexpr std::size_t kWrite = std::size_t{1} << 20; ///< bytes that are written at once

/// The number of a value in the order of values.
double orderOf(const Track& track, std::uint64_t bits) {
    return !track.isCounter || track.isReal() ? std::bit_cast<double>(bits)
                                              : static_cast<double>(static_cast<std::int64_t>(bits));
}

} // namespace

const std::vector<std::string>& TrackIndex::tables() {
    static const std::vector<std::string> tables{"function", "process", "interrupt", "thread",
                                                 "state",    "signal",  "mark",      "counter"};
    return tables;
}

bool TrackIndex::canReplace(const std::string& path) {
    std::error_code unknown;
    if (!std::filesystem::exists(path, unknown))
        return true;
    std::uint64_t magic = 0;
    std::ifstream file(path, std::ios::binary);
    return file.read(reinterpret_cast<char*>(&magic), sizeof magic) && magic << 16 == kMagic << 16;
}

std::uint64_t TrackIndex::checkOf(Header header, std::uint64_t places) {
    header.check = places;
    return crc32_z(0, reinterpret_cast<const Bytef*>(&header), sizeof header);
}

bool TrackIndex::open(const std::string& path, const std::string& key) {
    m_file.close();
    if (m_file.open(path.c_str()) != 0 || m_file.mapped() < sizeof m_header)
        return false;
    std::memcpy(&m_header, m_file.memory(), sizeof m_header);
    if (m_header.magic != kMagic || m_header.size != m_file.mapped() || m_header.places > m_header.size ||
        m_header.check != checkOf(m_header, crc32_z(0, at<Bytef>(m_header.places),
                                                    m_file.mapped() - static_cast<std::size_t>(m_header.places))) ||
        !holds<char>(m_header.key, m_header.keySize) ||
        std::string_view(at<char>(m_header.key), m_header.keySize) != key || !isWhole())
        return false;
    m_names.assign(tables().size(), {});
    for (std::string_view rest = lines(); !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size() - 1);
        rapidjson::Document line;
        line.Parse<rapidjson::kParseIterativeFlag>(rest.data(), end); // however deep it is
        rest.remove_prefix(end + 1);
        if (line.HasParseError() || !line.IsObject())
            return false;
        const auto textOf = [&line](const char* member) {
            const bool isText = line.HasMember(member) && line[member].IsString();
            return isText ? std::string(line[member].GetString(), line[member].GetStringLength()) : std::string();
        };
        if (textOf("record") != "name")
            continue;
        const auto table = std::ranges::find(tables(), textOf("table"));
        if (table != tables().end())
            m_names[static_cast<std::size_t>(table - tables().begin())].push_back(textOf("name"));
    }
    return true;
}

/// Whether all places that it tells are within it, and no two of the same: others may have written it.
bool TrackIndex::isWhole() const {
    if (!holds<char>(m_header.lines, m_header.linesSize) || !holds<TrackEntry>(m_header.tracks, m_header.trackCount))
        return false;
    std::uint64_t left = m_header.size;
    const auto take = [&left](std::uint64_t size) {
        const bool isThere = size <= left;
        left -= isThere ? size : 0;
        return isThere;
    };
    const auto isBlock = [&](const Block& block) {
        const std::uint64_t size = std::uint64_t{block.count} * (block.isWide != 0 ? 20 : 12);
        return block.count > 0 && block.count <= kBlock && block.chosen[0].index < block.count &&
               block.chosen[1].index < block.count && block.offset % alignof(std::uint64_t) == 0 &&
               holds<char>(block.offset, size) && take(size);
    };
    return std::ranges::all_of(tracks(), [&](const TrackEntry& track) {
        if (!holds<Row>(track.rows, track.rowCount) || !take(track.rowCount * sizeof(Row)) || track.rowCount == 0 ||
            track.table >= tables().size() || (track.form != Form::Spans && track.rowCount != 1))
            return false;
        std::uint64_t inTrack = 0;
        return std::ranges::all_of(rowsOf(track), [&](const Row& row) {
            if (!holds<Block>(row.blocks, row.blockCount) || !take(row.blockCount * sizeof(Block)) ||
                row.place != inTrack)
                return false;
            std::uint64_t inRow = 0;
            const bool isRow = std::ranges::all_of(blocksOf(row), [&](const Block& block) {
                return isBlock(block) && block.place == std::exchange(inRow, inRow + block.count);
            });
            inTrack += inRow;
            return isRow && row.count == inRow;
        });
    });
}

std::string_view TrackIndex::text(std::uint64_t number) const {
    std::uint64_t size = 0;
    if (number == 0 || !holds<char>(number, sizeof size))
        return {};
    std::memcpy(&size, m_file.memory() + number, sizeof size);
    return holds<char>(number + sizeof size, size) ? std::string_view(at<char>(number + sizeof size), size)
                                                   : std::string_view();
}

TrackIndexWriter::TrackIndexWriter(const std::vector<std::string>& files, platform::OutputFile& file, bool hasThread)
    : Tracks(files, kBatch), m_file(file) {
    const TrackIndex::Header none{};
    put(&none, sizeof none);
    if (hasThread)
        m_thread = std::thread([this] { work(); });
}

TrackIndexWriter::~TrackIndexWriter() {
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard lock(m_handing);
        m_ends = true;
        m_changed.notify_all();
    }
    m_thread.join();
}

void TrackIndexWriter::work() {
    std::unique_lock lock(m_handing);
    for (;;) {
        m_changed.wait(lock, [this] { return m_ends || !m_batches.empty(); });
        if (m_ends)
            return;
        const Track batch = std::move(m_batches.front());
        m_batches.pop_front();
        m_isBusy = true;
        lock.unlock();
        std::exception_ptr error;
        try {
            putIntoRows(batch);
        } catch (...) {
            error = std::current_exception();
        }
        lock.lock();
        m_error = m_error ? m_error : error;
        m_isBusy = false;
        m_changed.notify_all();
    }
}

void TrackIndexWriter::take(Track& track) {
    Track batch{track.rank, track.sort, track.table, {}, track.place, track.isCounter, track.number};
    batch.counter = track.counter;
    batch.hasReals = track.hasReals;
    batch.spans.swap(track.spans);
    track.spans.reserve(batch.spans.size());
    batch.marks.swap(track.marks);
    batch.values.swap(track.values);
    if (!m_thread.joinable()) {
        putIntoRows(batch);
        return;
    }
    std::unique_lock lock(m_handing);
    m_changed.wait(lock, [this] { return m_batches.size() < kWaiting; });
    m_batches.push_back(std::move(batch));
    m_changed.notify_all();
}

void TrackIndexWriter::finishBatches() {
    std::unique_lock lock(m_handing);
    m_changed.wait(lock, [this] { return m_batches.empty() && !m_isBusy; });
    if (m_error)
        std::rethrow_exception(std::exchange(m_error, nullptr));
}

std::uint64_t TrackIndexWriter::put(const void* bytes, std::size_t size) {
    const std::lock_guard lock(m_writing);
    const std::uint64_t at = m_size;
    const std::size_t padded = (size + 7) / 8 * 8;
    m_bytes.append(static_cast<const char*>(bytes), size);
    m_bytes.append(padded - size, '\0');
    m_size += padded;
    if (m_check)
        m_check = crc32_z(static_cast<uLong>(*m_check),
                          reinterpret_cast<const Bytef*>(m_bytes.data() + m_bytes.size() - padded), padded);
    if (m_bytes.size() >= kWrite) {
        m_hasFailed = m_hasFailed || !m_file.write(m_bytes.data(), m_bytes.size());
        m_bytes.clear();
    }
    return at;
}

std::uint64_t TrackIndexWriter::keep(std::string_view text) {
    const std::uint64_t size = text.size();
    std::string bytes(reinterpret_cast<const char*>(&size), sizeof size);
    bytes += text;
    return put(bytes.data(), bytes.size());
}

void TrackIndexWriter::putIntoRows(const Track& track) {
    if (!m_last || m_lastNumber != track.number) {
        m_last = &m_open[track.number];
        m_lastNumber = track.number;
        m_last->counts = &m_counts[track.table];
    }
    std::vector<OpenRow>& rows = m_last->rows;
    std::vector<std::uint64_t>& counts = *m_last->counts;
    if (rows.empty())
        rows.resize(1);
    const auto add = [&](OpenRow& row, const TrackIndex::Packed& item) {
        const std::uint32_t name = item.name >> TrackIndex::kFlags;
        if (counts.size() <= name)
            counts.resize(name + std::size_t{1});
        ++counts[name];
        row.items.push_back(item);
        if (row.items.size() == TrackIndex::kBlock)
            writeBlock(row, track);
    };
    for (const Span& span : track.spans) {
        if (rows.size() < span.depth + std::size_t{2})
            rows.resize(span.depth + std::size_t{2});
        OpenRow& row = rows[span.depth];
        // What is within it has ended before.
        const bool hasInner = std::exchange(rows[span.depth + 1].hasItems, false);
        const std::uint32_t flags = (span.isOpen ? TrackIndex::kIsOpen : 0) |
                                    (std::exchange(row.hasItems, true) ? 0 : TrackIndex::kIsFirst) |
                                    (hasInner ? TrackIndex::kHasInner : 0);
        add(row, {span.from, span.to - span.from, span.name << TrackIndex::kFlags | flags, 0});
    }
    for (const Mark& mark : track.marks)
        add(rows[0], {mark.at, mark.text, mark.name << TrackIndex::kFlags, 0});
    for (const Value& value : track.values)
        add(rows[0], {value.at, value.bits, 0, 0});
}

void TrackIndexWriter::writeBlock(OpenRow& row, const Track& track) {
    const std::vector<TrackIndex::Packed>& items = row.items;
    TrackIndex::Block block{0, row.count, items.front().at, 0, 0, static_cast<std::uint32_t>(items.size()), 0, {}};
    std::uint64_t widest = 0;
    for (const TrackIndex::Packed& item : items) {
        widest |= (item.at - block.first) | item.more;
        block.names |= TrackIndex::bitOf(item.name >> TrackIndex::kFlags);
    }
    block.isWide = widest >> 32 != 0;
    const auto choose = [&](std::size_t number, const TrackIndex::Packed& item) {
        block.chosen[number] = item;
        block.chosen[number].index = static_cast<std::uint32_t>(&item - items.data());
    };
    choose(0, items.front());
    choose(1, items.front());
    for (const TrackIndex::Packed& item : items) {
        switch (track.rank) {
        case Rank::Curves:
            if (orderOf(track, item.more) < orderOf(track, block.chosen[0].more))
                choose(0, item);
            if (orderOf(track, item.more) > orderOf(track, block.chosen[1].more))
                choose(1, item);
            [[fallthrough]];
        case Rank::Marks:
            block.last = std::max(block.last, item.at);
            break;
        default:
            if (item.more > block.chosen[0].more)
                choose(0, item);
            block.last = std::max(block.last, item.at + item.more);
        }
    }
    std::array<char, std::size_t{20} * TrackIndex::kBlock> bytes;
    char* to = bytes.data();
    const auto append = [&](auto numberOf) {
        for (const TrackIndex::Packed& item : items) {
            const auto number = numberOf(item);
            std::memcpy(to, &number, sizeof number);
            to += sizeof number;
        }
    };
    if (block.isWide != 0) {
        append([&](const auto& item) { return item.at - block.first; });
        append([](const auto& item) { return item.more; });
    } else {
        append([&](const auto& item) { return static_cast<std::uint32_t>(item.at - block.first); });
        append([](const auto& item) { return static_cast<std::uint32_t>(item.more); });
    }
    append([](const auto& item) { return item.name; });
    block.offset = put(bytes.data(), static_cast<std::size_t>(to - bytes.data()));
    row.blocks.push_back(block);
    row.count += block.count;
    row.items.clear();
}

void TrackIndexWriter::finish(Track&& track, std::uint32_t file, std::uint64_t frequency) {
    using Form = TrackIndex::Form;
    take(track);
    finishBatches();
    OpenTrack open = std::move(m_open[track.number]);
    m_open.erase(track.number);
    m_last = nullptr;
    std::uint64_t count = 0;
    if (open.rows.size() > 1)
        open.rows.pop_back(); // behind the deepest
    for (OpenRow& row : open.rows) {
        if (!row.items.empty())
            writeBlock(row, track);
        row.items.shrink_to_fit();
        count += row.count;
    }
    const bool isValues = track.rank == Rank::Curves;
    TrackIndex::TrackEntry entry{};
    entry.rowCount = static_cast<std::uint32_t>(open.rows.size());
    entry.form = track.rank == Rank::Marks             ? Form::Marks
                 : !isValues                           ? Form::Spans
                 : !track.isCounter && !track.isReal() ? Form::WholeReals
                 : track.isReal()                      ? Form::Reals
                                                       : Form::Numbers;
    entry.frequency = frequency;
    entry.isCalls = track.rank == Rank::Calls;
    entry.table =
        static_cast<std::uint32_t>(std::ranges::find(TrackIndex::tables(), track.table) - TrackIndex::tables().begin());
    JsonLine line = lineOf(track, file, frequency, count);
    line.add("rows", entry.rowCount);
    if (isValues) {
        double least = 0, most = 0;
        bool isNone = true;
        for (const TrackIndex::Block& block : open.rows[0].blocks) {
            for (const TrackIndex::Packed& item : block.chosen) {
                const double value = orderOf(track, item.more);
                if (!(value - value == 0)) // infinite, or no number
                    continue;
                least = isNone ? value : std::min(least, value);
                most = isNone ? value : std::max(most, value);
                isNone = false;
            }
        }
        line.addReal("least", least).addReal("most", isNone ? 1 : most);
    }
    m_tracks.push_back({track.rank, std::move(line), entry, std::move(open.rows)});
}

bool TrackIndexWriter::finish(const std::string& its, const std::vector<std::string>& given, const std::string& key) {
    std::ranges::stable_sort(m_tracks, {}, &Written::rank);
    std::uint64_t from = ~std::uint64_t{0}, to = 0;
    std::vector<TrackIndex::TrackEntry> entries;
    std::string trackLines;
    m_check = 0;
    const std::uint64_t places = m_size;
    for (Written& track : m_tracks) {
        std::vector<TrackIndex::Row> rows;
        std::uint64_t place = 0;
        for (const OpenRow& row : track.rows) {
            const std::uint64_t at = put(row.blocks.data(), row.blocks.size() * sizeof(TrackIndex::Block));
            rows.push_back({at, row.blocks.size(), place, row.count});
            place += row.count;
        }
        for (const TrackIndex::Block& block : track.rows.front().blocks) {
            from = std::min(from, block.first);
            to = std::max(to, block.last);
        }
        track.entry.rows = put(rows.data(), rows.size() * sizeof(TrackIndex::Row));
        entries.push_back(track.entry);
        trackLines += track.line.text();
    }
    const auto relative = [this](std::uint64_t tick) { return static_cast<std::int64_t>(tick - first()); };
    const bool isNone = from > to;
    std::string lines = title(its, given)
                            .addSigned("from", isNone ? 0 : relative(from))
                            .addSigned("to", isNone ? 0 : relative(to))
                            .text() +
                        Tracks::lines(given);
    for (const auto& [table, counts] : m_counts)
        lines += record("counts").add("table", table).add("counts", counts).text();
    lines += trackLines;
    TrackIndex::Header header{TrackIndex::kMagic, 0, places,     0,      0, entries.size(), 0,
                              lines.size(),       0, key.size(), first()};
    header.tracks = put(entries.data(), entries.size() * sizeof(TrackIndex::TrackEntry));
    header.lines = put(lines.data(), lines.size());
    header.key = put(key.data(), key.size());
    header.size = m_size;
    header.check = TrackIndex::checkOf(header, *m_check);
    return !m_hasFailed && m_file.write(m_bytes.data(), m_bytes.size()) && m_file.seek(0) &&
           m_file.write(reinterpret_cast<const char*>(&header), sizeof header);
}

} // namespace qvx
