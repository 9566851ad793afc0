#include "TrackAnswers.h"

#include "ReportPage.h"
#include "quorvex/analysis/Durations.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Glob.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <limits>
#include <set>
#include <unordered_map>
#include <utility>

namespace qvx {

using namespace Quorvex;

using Form = TrackIndex::Form;
using TrackEntry = TrackIndex::TrackEntry;
using Row = TrackIndex::Row;
using Block = TrackIndex::Block;

namespace {

constexpr std::size_t kTextShown = 300; ///< of a mark in a picture
constexpr std::size_t kSlowest = 20;
constexpr std::size_t kMostPaths = std::size_t{1} << 20;
constexpr std::uint64_t kBins = 8; ///< of durations, for each power of two

/// Nothing that the page could have asked.
struct NotUnderstood {};

/// The number of the counter for a duration.
std::uint64_t binOf(std::uint64_t duration) {
    if (duration < kBins)
        return duration;
    const auto power = static_cast<unsigned>(std::bit_width(duration)) - 4;
    return kBins * (power + 1) + ((duration >> power) - kBins);
}

/// Lines, and columns behind them, as the page reads them.
class Answer {
public:
    void add(const JsonLine& line) { m_lines += line.text(); }
    void add(JsonLine line, const std::vector<ReportColumn>& columns) {
        std::vector<std::uint64_t> sizes;
        for (const ReportColumn& column : columns) {
            sizes.push_back(column.bytes().size());
            m_data += column.bytes();
        }
        add(line.add("columns", sizes));
    }
    /// The number of bytes of the lines, the lowest first, then all.
    std::string text() const {
        std::string all;
        for (unsigned shift = 0; shift < 32; shift += 8)
            all += static_cast<char>(m_lines.size() >> shift);
        return all + m_lines + m_data;
    }

private:
    std::string m_lines;
    std::string m_data;
};

} // namespace

/// The words of a question.
class TrackAnswers::Asked {
public:
    Asked(const TrackIndex& index, const Words& words) : m_index(index), m_words(words) {
        if (words.contains("from")) {
            from = number("from");
            to = words.contains("to") ? number("to") : from;
        }
    }

    std::int64_t from = 0;
    std::int64_t to = 0;

    std::string text(const char* word) const {
        const auto at = m_words.find(word);
        return at == m_words.end() ? std::string() : at->second;
    }
    bool has(const char* word) const { return m_words.contains(word); }
    std::int64_t number(const char* word) const { return numberOf(text(word)); }
    const TrackEntry& track() const { return trackOf(number("track")); }
    /// Numbers of tracks, with commas between them.
    std::vector<std::int64_t> tracks() const {
        std::vector<std::int64_t> all;
        const std::string its = text("tracks");
        for (std::string_view rest = its; !rest.empty();) {
            const std::size_t end = std::min(rest.find(','), rest.size());
            all.push_back(numberOf(rest.substr(0, end)));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        return all;
    }
    const TrackEntry& trackOf(std::int64_t track) const {
        if (track < 0 || static_cast<std::uint64_t>(track) >= m_index.tracks().size())
            throw NotUnderstood();
        return m_index.tracks()[static_cast<std::size_t>(track)];
    }

private:
    static std::int64_t numberOf(std::string_view text) {
        std::int64_t number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || end != text.data() + text.size())
            throw NotUnderstood();
        // Far enough from the ends that sums of them are numbers, too.
        constexpr std::int64_t kFar = std::int64_t{1} << 62;
        return std::clamp(number, -kFar, kFar);
    }

    const TrackIndex& m_index;
    const Words& m_words;
};

double TrackAnswers::valueOf(const TrackEntry& track, std::uint64_t bits) const {
    return track.form == Form::Numbers ? static_cast<double>(static_cast<std::int64_t>(bits))
                                       : std::bit_cast<double>(bits);
}

std::string_view TrackAnswers::nameOf(const TrackEntry& track, const Item& item) const {
    const std::vector<std::string>& names = m_index.namesOf(track.table);
    return item.name < names.size() ? std::string_view(names[item.name]) : std::string_view();
}

std::size_t TrackAnswers::blockAt(const Row& row, std::int64_t moment) const {
    const std::span<const Block> blocks = m_index.blocksOf(row);
    const auto at =
        std::ranges::partition_point(blocks, [&](const Block& block) { return fromBase(block.last) < moment; });
    return static_cast<std::size_t>(at - blocks.begin());
}

template <class Take>
void TrackAnswers::eachItem(const TrackEntry& track, const Row& row, std::int64_t from, std::int64_t to,
                            const Take& take) const {
    const std::span<const Block> blocks = m_index.blocksOf(row);
    for (std::size_t number = blockAt(row, from); number < blocks.size(); ++number) {
        const Block& block = blocks[number];
        for (std::uint32_t i = 0; i < block.count; ++i) {
            const Item item = m_index.item(block, i);
            if (fromBase(item.at) >= to)
                return;
            if (fromBase(isSpans(track) ? item.end() : item.at) >= from && !take(item, block.place + i))
                return;
        }
    }
}

/// Goes through the spans of a row one by one.
class TrackAnswers::Cursor {
public:
    /// Stands at the first span that is within what begins at `from`.
    Cursor(const TrackAnswers& answers, const Row& row, std::int64_t from)
        : m_index(answers.m_index), m_blocks(m_index.blocksOf(row)), m_block(answers.blockAt(row, from)) {
        load();
        while (isThere() && answers.fromBase(m_item.at) < from && answers.fromBase(m_item.end()) <= from)
            next();
    }
    bool isThere() const { return m_block < m_blocks.size(); }
    const Item& operator*() const { return m_item; }
    void next() {
        if (++m_at == m_blocks[m_block].count) {
            m_at = 0;
            ++m_block;
        }
        load();
    }

private:
    void load() {
        if (isThere())
            m_item = m_index.item(m_blocks[m_block], m_at);
    }

    const TrackIndex& m_index;
    std::span<const Block> m_blocks;
    std::size_t m_block;
    std::uint32_t m_at = 0;
    Item m_item{};
};

/// What is known of a call when it ends, as far as it is within the time that was asked for: times in nanoseconds, or
/// in ticks of traces that do not tell their clock.
struct TrackAnswers::Call {
    std::uint32_t name;
    std::uint64_t duration;
    std::uint64_t self;
    bool isLeft;
    bool isOutermost; ///< no other call of the function encloses it
};

template <class Opens, class Ends>
void TrackAnswers::eachCall(const TrackEntry& track, std::int64_t from, std::int64_t to, const Opens& opens,
                            const Ends& ends) const {
    struct Open {
        Item item;
        std::uint64_t inner;
        bool hasBegun; ///< what is within it
    };
    std::vector<Cursor> rows;
    for (const Row& row : m_index.rowsOf(track))
        rows.emplace_back(*this, row, from);
    std::vector<Open> open;
    std::vector<std::uint32_t> within(m_index.namesOf(track.table).size());
    // Whether the next one of the row below belongs to what is open.
    const auto isWithin = [&](const Item& item) {
        if (open.empty())
            return true;
        Open& above = open.back();
        if (above.hasBegun)
            return !item.isFirst;
        // The first ones of what has begun before may have ended before.
        return above.item.hasInner && (!item.isFirst || fromBase(above.item.at) >= from ||
                                       (item.at >= above.item.at && item.at <= above.item.end()));
    };
    for (;;) {
        const std::size_t depth = open.size();
        if (depth < rows.size() && rows[depth].isThere() && fromBase((*rows[depth]).at) < to &&
            isWithin(*rows[depth])) {
            const Item item = *rows[depth];
            rows[depth].next();
            if (!open.empty())
                open.back().hasBegun = true;
            open.push_back({item, 0, false});
            if (item.name < within.size())
                ++within[item.name];
            opens(depth, item.name);
            continue;
        }
        if (open.empty())
            return;
        const Open its = open.back();
        open.pop_back();
        const std::int64_t begin = std::max(fromBase(its.item.at), from);
        const std::int64_t end = std::min(fromBase(its.item.end()), to);
        const std::uint64_t duration =
            TimeBase::nanosecondsOf(end > begin ? static_cast<std::uint64_t>(end - begin) : 0, track.frequency);
        const bool isOutermost = its.item.name >= within.size() || --within[its.item.name] == 0;
        ends(open.size(),
             Call{its.item.name, duration, duration - std::min(its.inner, duration), !its.item.isOpen, isOutermost});
        if (!open.empty())
            open.back().inner += duration;
    }
}

std::vector<const TrackEntry*> TrackAnswers::callTracks(const Asked& asked) const {
    if (asked.has("track"))
        return {&asked.track()};
    std::vector<const TrackEntry*> all;
    for (const TrackEntry& track : m_index.tracks()) {
        if (track.isCalls != 0)
            all.push_back(&track);
    }
    return all;
}

std::string TrackAnswers::table(const Asked& asked) const {
    struct Sum {
        std::uint64_t unfinished = 0;
        std::uint64_t total = 0;
        std::uint64_t self = 0;
        Durations durations;
    };
    std::map<std::uint32_t, Sum> sums;
    std::vector<Sum*> byName;
    bool hasClock = true;
    std::uint64_t whole = 0;
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        byName.resize(std::max(byName.size(), m_index.namesOf(track->table).size()));
        eachCall(
            *track, asked.from, asked.to, [](std::size_t, std::uint32_t) {},
            [&](std::size_t, const Call& call) {
                if (call.name >= byName.size())
                    return; // of a damaged index
                if (!byName[call.name])
                    byName[call.name] = &sums[call.name];
                Sum& sum = *byName[call.name];
                if (call.isLeft)
                    sum.durations.add(call.duration);
                else
                    ++sum.unfinished;
                if (call.isOutermost)
                    sum.total += call.duration;
                sum.self += call.self;
                whole += call.self;
            });
    }
    std::vector<std::uint64_t> columns[9];
    for (const auto& [name, sum] : sums) {
        const Durations& its = sum.durations;
        const std::uint64_t values[] = {
            name,        its.count() + sum.unfinished, sum.unfinished,     sum.total, sum.self,
            its.least(), its.percentile(50),           its.percentile(99), its.most()};
        for (std::size_t i = 0; i < std::size(values); ++i)
            columns[i].push_back(values[i]);
    }
    JsonLine line;
    constexpr const char* kColumns[] = {"name", "calls", "unfinished", "total", "self", "min", "p50", "p99", "max"};
    for (std::size_t i = 0; i < std::size(columns); ++i)
        line.add(kColumns[i], columns[i]);
    return line.addTruth("hasClock", hasClock).add("whole", whole).text();
}

std::string TrackAnswers::histogram(const Asked& asked) const {
    struct Place {
        std::uint64_t duration;
        std::int64_t start;
        std::int64_t end;
        std::uint64_t track;
        std::uint64_t place;
        bool operator<(const Place& other) const {
            return duration != other.duration ? duration > other.duration : start < other.start;
        }
    };
    std::map<std::uint64_t, std::uint64_t> counts;
    std::set<Place> slowest;
    std::uint64_t count = 0;
    bool hasClock = true;
    const auto name = static_cast<std::uint32_t>(asked.number("name"));
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        for (const Row& row : m_index.rowsOf(*track))
            eachItem(*track, row, asked.from, asked.to, [&](const Item& item, std::uint64_t place) {
                const std::int64_t start = fromBase(item.at), end = fromBase(item.end());
                if (item.name != name || item.isOpen || (start < asked.from && end <= asked.from))
                    return true;
                const auto ticks = static_cast<std::uint64_t>(std::max(std::min(end, asked.to), asked.from) -
                                                              std::max(start, asked.from));
                const std::uint64_t duration = TimeBase::nanosecondsOf(ticks, track->frequency);
                ++count;
                ++counts[binOf(duration)];
                if (slowest.size() < kSlowest || duration > slowest.rbegin()->duration) {
                    slowest.insert({duration, start, end, static_cast<std::uint64_t>(track - m_index.tracks().data()),
                                    row.place + place});
                    if (slowest.size() > kSlowest)
                        slowest.erase(std::prev(slowest.end()));
                }
                return true;
            });
    }
    std::vector<std::uint64_t> bins, binCounts;
    for (const auto& [bin, its] : counts) {
        bins.push_back(bin);
        binCounts.push_back(its);
    }
    std::string lines =
        JsonLine().add("bins", bins).add("counts", binCounts).add("count", count).addTruth("hasClock", hasClock).text();
    for (const Place& place : slowest)
        lines += JsonLine()
                     .add("track", place.track)
                     .add("span", place.place)
                     .addSigned("start", place.start)
                     .addSigned("end", place.end)
                     .add("duration", place.duration)
                     .text();
    return lines;
}

std::string TrackAnswers::flame(const Asked& asked) const {
    struct Path {
        std::uint64_t total = 0;
        std::uint64_t self = 0;
        std::uint64_t calls = 0;
    };
    constexpr std::uint32_t kNone = ~0U;
    std::vector<Path> paths;
    std::unordered_map<std::uint64_t, std::uint32_t> known; // by parent and name
    ReportColumn parents, names;
    bool hasClock = true, isCut = false;
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        std::vector<std::uint32_t> stack;
        eachCall(
            *track, asked.from, asked.to,
            [&](std::size_t depth, std::uint32_t name) {
                const std::uint32_t above = depth > 0 ? stack[depth - 1] : kNone;
                stack.resize(depth + 1);
                const std::uint64_t key = std::uint64_t{above + 1} << 32 | name;
                const auto at = known.find(key);
                if (at == known.end() && paths.size() >= kMostPaths) {
                    isCut = true;
                    stack[depth] = above;
                } else if (at == known.end()) {
                    stack[depth] = static_cast<std::uint32_t>(paths.size());
                    known.emplace(key, stack[depth]);
                    paths.emplace_back();
                    parents.add(std::uint32_t{above + 1});
                    names.add(name);
                } else {
                    stack[depth] = at->second;
                }
            },
            [&](std::size_t depth, const Call& call) {
                if (stack[depth] == kNone)
                    return;
                Path& path = paths[stack[depth]];
                path.total += call.duration;
                path.self += call.self;
                ++path.calls;
            });
    }
    ReportColumn totals, selves, calls;
    for (const Path& path : paths) {
        totals.add(path.total);
        selves.add(path.self);
        calls.add(path.calls);
    }
    Answer answer;
    answer.add(JsonLine().addTruth("hasClock", hasClock).addTruth("isCut", isCut).add("count", paths.size()),
               {std::move(parents), std::move(names), std::move(totals), std::move(selves), std::move(calls)});
    return answer.text();
}

/// Takes what a picture of so many cells needs: of what is shorter than a cell, one of those that begin in it.
class TrackAnswers::Cells {
public:
    Cells(const TrackAnswers& answers, std::int64_t from, std::int64_t to, std::int64_t cell)
        : m_answers(answers),
          m_from(from),
          m_to(to),
          m_cell(static_cast<std::uint64_t>(std::max<std::int64_t>(cell, 1))) {}

    /// Tells `take` of the items that are wanted of a row, with their places.
    template <class Take> void each(const TrackEntry& track, const Row& row, const Take& take) {
        const TrackIndex& index = m_answers.m_index;
        const std::span<const Block> blocks = index.blocksOf(row);
        std::size_t number = m_answers.blockAt(row, m_from);
        if (m_answers.isSpans(track) || track.form == Form::Marks) {
            Kept kept;
            const auto look = [&](const Item& item, std::uint64_t place) {
                const bool isMoment = track.form == Form::Marks;
                if (!isMoment && item.more >= m_cell) {
                    kept.give(take);
                    take(item, place);
                    return;
                }
                const std::uint64_t cell = cellOf(item.at);
                if (kept.isThere && kept.cell == cell && (isMoment || item.more <= kept.item.more))
                    return;
                if (kept.cell != cell)
                    kept.give(take);
                kept = {true, cell, item, place};
            };
            for (; number < blocks.size() && m_answers.fromBase(blocks[number].first) < m_to; ++number) {
                const Block& block = blocks[number];
                if (block.last - block.first < m_cell) {
                    look(TrackIndex::unpacked(block.chosen[0]), block.place + block.chosen[0].index);
                    continue;
                }
                for (std::uint32_t i = 0; i < block.count; ++i) {
                    const Item item = index.item(block, i);
                    if (m_answers.fromBase(item.at) >= m_to)
                        break;
                    if (m_answers.fromBase(track.form == Form::Marks ? item.at : item.end()) >= m_from)
                        look(item, block.place + i);
                }
            }
            kept.give(take);
            return;
        }
        // Of values the least, the greatest and the last one of each cell, and the one that holds at the beginning.
        std::map<std::uint64_t, Item> three; // by place
        std::uint64_t cell = ~std::uint64_t{0};
        std::uint64_t least = 0, most = 0, last = 0;
        const auto valueAt = [&](std::uint64_t place) { return m_answers.valueOf(track, three[place].more); };
        const auto give = [&] {
            for (const auto& [place, item] : three)
                take(item, place);
            three.clear();
        };
        const auto look = [&](const Item& item, std::uint64_t place) {
            const std::uint64_t its = cellOf(item.at);
            if (its != cell || three.empty()) {
                give();
                cell = its;
                least = most = last = place;
                three.emplace(place, item);
                return;
            }
            three.emplace(place, item);
            const std::uint64_t before[] = {least, most, last};
            least = valueAt(place) < valueAt(least) ? place : least;
            most = valueAt(place) > valueAt(most) ? place : most;
            last = std::max(last, place);
            for (const std::uint64_t one : before) {
                if (one != least && one != most && one != last)
                    three.erase(one);
            }
        };
        if (number > 0)
            --number;
        for (; number < blocks.size() && m_answers.fromBase(blocks[number].first) < m_to; ++number) {
            const Block& block = blocks[number];
            if (block.last - block.first < m_cell) {
                for (const TrackIndex::Packed& item : block.chosen)
                    look(TrackIndex::unpacked(item), block.place + item.index);
                look(index.item(block, block.count - 1), block.place + block.count - 1);
                continue;
            }
            for (std::uint32_t i = 0; i < block.count; ++i) {
                const Item item = index.item(block, i);
                if (m_answers.fromBase(item.at) >= m_to)
                    break;
                const bool isBefore = i + 1 < block.count && m_answers.fromBase(index.item(block, i + 1).at) < m_from;
                if (!isBefore)
                    look(item, block.place + i);
            }
        }
        give();
    }

private:
    struct Kept {
        bool isThere = false;
        std::uint64_t cell = 0;
        Item item{};
        std::uint64_t place = 0;

        template <class Take> void give(const Take& take) {
            if (std::exchange(isThere, false))
                take(item, place);
        }
    };

    std::uint64_t cellOf(std::uint64_t tick) const {
        const std::int64_t since = m_answers.since(m_from, tick);
        return since < 0 ? ~std::uint64_t{0} - 1 : static_cast<std::uint64_t>(since) / m_cell;
    }

    const TrackAnswers& m_answers;
    std::int64_t m_from;
    std::int64_t m_to;
    std::uint64_t m_cell;
};

std::string TrackAnswers::tile(const Asked& asked) const {
    Answer answer;
    std::set<std::uint64_t> texts;
    Cells cells(*this, asked.from, asked.to, asked.number("cell"));
    for (const std::int64_t number : asked.tracks()) {
        const TrackEntry& track = asked.trackOf(number);
        const bool isMarks = track.form == Form::Marks;
        // Spans: how many each row has, when they begin, how long they take, names, places, which are open.
        // Marks: moments, names, texts, places. Values: moments, values, places.
        ReportColumn counts, at, second, third, places, open;
        std::uint64_t all = 0, lastOpen = 0, lastPlace = 0;
        for (const Row& row : m_index.rowsOf(track)) {
            std::int64_t last = asked.from;
            std::uint64_t count = 0;
            cells.each(track, row, [&](const Item& item, std::uint64_t place) {
                at.addSigned(since(last, item.at));
                last = fromBase(isSpans(track) ? item.end() : item.at);
                places.add(row.place + place - std::exchange(lastPlace, row.place + place));
                if (isSpans(track)) {
                    second.add(item.more);
                    third.add(item.name);
                } else if (isMarks) {
                    second.add(item.name);
                    third.add(item.more);
                    if (item.more != 0 && texts.insert(item.more).second)
                        answer.add(JsonLine()
                                       .add("record", std::string_view("text"))
                                       .add("number", item.more)
                                       .add("text", m_index.text(item.more).substr(0, kTextShown)));
                } else {
                    second.addReal(valueOf(track, item.more));
                }
                if (item.isOpen)
                    open.add(all - std::exchange(lastOpen, all));
                ++count;
                ++all;
            });
            counts.add(count);
        }
        answer.add(JsonLine()
                       .add("record", std::string_view("tile"))
                       .add("track", static_cast<std::uint64_t>(number))
                       .add("count", all),
                   {std::move(counts), std::move(at), std::move(second), std::move(third), std::move(places),
                    std::move(open)});
    }
    return answer.text();
}

std::string TrackAnswers::marks(const Asked& asked) const {
    const std::string filter = asked.text("filter");
    const auto most = static_cast<std::uint64_t>(std::max<std::int64_t>(asked.number("most"), 0));
    std::multimap<std::int64_t, std::string> rows; // by moment
    std::uint64_t count = 0;
    for (const TrackEntry& track : m_index.tracks()) {
        if (track.form != Form::Marks)
            continue;
        eachItem(
            track, m_index.rowsOf(track).front(), asked.from, asked.to, [&](const Item& item, std::uint64_t place) {
                const std::string_view name = nameOf(track, item), text = m_index.text(item.more);
                if (!filter.empty() && !matches(filter, name) && !matches(filter, text))
                    return true;
                ++count;
                const std::int64_t at = fromBase(item.at);
                if (rows.size() < most || (!rows.empty() && at < rows.rbegin()->first)) {
                    rows.emplace(at, JsonLine()
                                         .add("track", static_cast<std::uint64_t>(&track - m_index.tracks().data()))
                                         .add("index", place)
                                         .addSigned("at", at)
                                         .add("name", std::uint64_t{item.name})
                                         .add("text", text.substr(0, 4000))
                                         .text());
                    if (rows.size() > most)
                        rows.erase(std::prev(rows.end()));
                }
                return true;
            });
    }
    std::string lines = JsonLine().add("count", count).text();
    for (const auto& [at, row] : rows)
        lines += row;
    return lines;
}

std::string TrackAnswers::next(const Asked& asked) const {
    struct Hit {
        std::int64_t at;
        std::int64_t track;
        std::uint64_t place;
        auto operator<=>(const Hit&) const = default;
    };
    const Hit from{asked.from, asked.has("track") ? asked.number("track") : -1,
                   asked.has("index") ? static_cast<std::uint64_t>(asked.number("index")) : 0};
    const bool isBack = asked.text("back") == "1";
    const std::string pattern = asked.text("pattern");
    std::optional<Hit> best;
    std::vector<std::optional<std::vector<bool>>> wanted(TrackIndex::tables().size());
    for (const TrackEntry& track : m_index.tracks()) {
        if (track.form != Form::Spans && track.form != Form::Marks)
            continue;
        std::optional<std::vector<bool>>& names = wanted[track.table];
        if (!names) {
            names.emplace();
            for (const std::string& name : m_index.namesOf(track.table))
                names->push_back(matches(pattern, name));
        }
        if (std::ranges::find(*names, true) == names->end())
            continue;
        const auto number = static_cast<std::int64_t>(&track - m_index.tracks().data());
        for (const Row& row : m_index.rowsOf(track)) {
            const std::span<const Block> blocks = m_index.blocksOf(row);
            const auto look = [&](const Block& block, std::uint32_t i) {
                const Item item = m_index.item(block, i);
                const Hit hit{fromBase(item.at), number, row.place + block.place + i};
                if (item.name >= names->size() || !(*names)[item.name] || (isBack ? hit >= from : hit <= from))
                    return false;
                if (!best || (isBack ? hit > *best : hit < *best))
                    best = hit;
                return true;
            };
            bool isFound = false;
            if (!isBack) {
                for (std::size_t n = blockAt(row, from.at); n < blocks.size() && !isFound; ++n) {
                    if (best && fromBase(blocks[n].first) > best->at)
                        break;
                    for (std::uint32_t i = 0; i < blocks[n].count && !isFound; ++i)
                        isFound = look(blocks[n], i);
                }
            } else {
                const auto end = std::ranges::partition_point(
                    blocks, [&](const Block& block) { return fromBase(block.first) <= from.at; });
                for (auto n = static_cast<std::size_t>(end - blocks.begin()); n-- > 0 && !isFound;) {
                    if (best && fromBase(blocks[n].last) < best->at)
                        break;
                    for (std::uint32_t i = blocks[n].count; i-- > 0 && !isFound;)
                        isFound = look(blocks[n], i);
                }
            }
        }
    }
    if (!best)
        return "null\n";
    return JsonLine().add("track", static_cast<std::uint64_t>(best->track)).add("index", best->place).text();
}

std::string TrackAnswers::item(const Asked& asked) const {
    const TrackEntry& track = asked.track();
    const auto index = static_cast<std::uint64_t>(asked.number("index"));
    const std::span<const Row> rows = m_index.rowsOf(track);
    const auto row = std::ranges::find_if(
        rows, [index](const Row& its) { return index >= its.place && index - its.place < its.count; });
    if (row == rows.end())
        return "null\n";
    const std::uint64_t place = index - row->place;
    const std::span<const Block> blocks = m_index.blocksOf(*row);
    const Block& block =
        *std::prev(std::ranges::partition_point(blocks, [place](const Block& its) { return its.place <= place; }));
    const Item item = m_index.item(block, static_cast<std::uint32_t>(place - block.place));
    JsonLine line;
    line.addSigned("start", fromBase(item.at));
    if (track.form == Form::Marks)
        return line.add("name", std::uint64_t{item.name}).add("text", m_index.text(item.more)).text();
    if (!isSpans(track))
        return line.addReal("value", valueOf(track, item.more)).text();
    line.addSigned("end", fromBase(item.end()))
        .add("name", std::uint64_t{item.name})
        .addTruth("isOpen", item.isOpen)
        .add("depth", static_cast<std::uint64_t>(row - rows.begin()));
    if (row != rows.begin()) {
        eachItem(track, *std::prev(row), fromBase(item.end()), behind(item.at), [&](const Item& above, std::uint64_t) {
            line.add("parent", std::uint64_t{above.name});
            return false;
        });
    }
    std::uint64_t inner = 0, called = 0;
    if (item.hasInner && std::next(row) != rows.end()) {
        eachItem(track, *std::next(row), fromBase(item.at), behind(item.end()), [&](const Item& below, std::uint64_t) {
            if (below.at < item.at || (called == 0 && !below.isFirst))
                return true;
            if (called > 0 && below.isFirst)
                return false;
            ++called;
            inner += TimeBase::nanosecondsOf(below.more, track.frequency);
            return true;
        });
    }
    return line.add("inner", inner).add("called", called).text();
}

std::optional<std::string> TrackAnswers::answer(const std::string& question, const Words& words) const {
    static const std::map<std::string, std::string (TrackAnswers::*)(const Asked&) const> kAnswers{
        {"tile", &TrackAnswers::tile},   {"table", &TrackAnswers::table}, {"histogram", &TrackAnswers::histogram},
        {"flame", &TrackAnswers::flame}, {"marks", &TrackAnswers::marks}, {"next", &TrackAnswers::next},
        {"item", &TrackAnswers::item}};
    if (question == "lines")
        return std::string(m_index.lines());
    const auto at = kAnswers.find(question);
    if (at == kAnswers.end())
        return std::nullopt;
    try {
        return (this->*at->second)(Asked(m_index, words));
    } catch (const NotUnderstood&) {
        return std::nullopt;
    }
}

} // namespace qvx
