#include "TrackAnswers.h"

#include "ReportPage.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/Durations.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Glob.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <functional>
#include <limits>
#include <mutex>
#include <set>
#include <tuple>
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
    std::uint64_t place() const { return m_blocks[m_block].place + m_at; } ///< within the row
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

/// The calls of a track in a part of the time. Durations are in nanoseconds, or in ticks of traces that do not tell
/// their clock.
struct TrackAnswers::Part {
    /// Calls of a function by the same path. Those that reach beyond the part are not counted.
    struct Path {
        std::uint32_t above; ///< the number of the path that leads to it, and 1; 0 where there is none
        std::uint32_t name;
        bool isOutermost; ///< no other call of the function encloses it
        std::uint64_t calls = 0;
        std::uint64_t unfinished = 0; ///< of these
        std::uint64_t total = 0;
        std::uint64_t self = 0;
    };
    /// Calls of a path, without unfinished ones, whose durations have one counter.
    struct Alike {
        std::uint32_t path;
        std::uint32_t count;
        std::uint64_t least;
        std::uint64_t most;
    };

    std::vector<Path> paths; ///< behind those that lead to them
    std::vector<Alike> alike;
    std::vector<CutCall> cut;
};

/// A call that reaches beyond a part.
struct TrackAnswers::CutCall {
    Item item;
    std::uint64_t place; ///< within its row
    std::uint64_t above; ///< the place of what encloses it
    std::uint32_t depth;
    std::uint32_t path;
    bool isOutermost;
    std::uint64_t inner; ///< the time in what it called that is within the part as a whole
};

/// When a track is cut, and the part between two of these moments, as far as that has been asked for.
struct TrackAnswers::Slices {
    std::vector<std::int64_t> moments;
    std::unique_ptr<std::once_flag[]> once;
    std::vector<Part> parts;
};

TrackAnswers::TrackAnswers(const TrackIndex& index, std::size_t blocks)
    : m_index(index), m_slices(std::make_unique<Slices[]>(index.tracks().size())) {
    for (std::size_t number = 0; number < index.tracks().size(); ++number) {
        const TrackEntry& track = index.tracks()[number];
        if (track.isCalls == 0 || !isSpans(track))
            continue;
        const Row& row = *std::ranges::max_element(index.rowsOf(track), {}, &Row::blockCount);
        const std::span<const Block> its = index.blocksOf(row);
        Slices& slices = m_slices[number];
        std::size_t next = blocks;
        for (std::size_t i = 1; i < its.size(); ++i) {
            // What encloses the first call of the block goes on, and what was before has ended.
            if (i < next || fromBase(its[i - 1].last) >= fromBase(its[i].first) || index.item(its[i], 0).more == 0 ||
                (!slices.moments.empty() && fromBase(its[i].first) <= slices.moments.back()))
                continue;
            slices.moments.push_back(fromBase(its[i].first));
            next = i + blocks;
        }
        slices.once = std::make_unique<std::once_flag[]>(slices.moments.size());
        slices.parts.resize(slices.moments.size());
    }
}

TrackAnswers::~TrackAnswers() = default;

template <class Opens, class Ends>
void TrackAnswers::eachCall(const TrackEntry& track, std::int64_t from, std::int64_t to, const Opens& opens,
                            const Ends& ends) const {
    struct Open {
        Item item;
        std::uint64_t place;
        bool hasBegun; ///< what is within it
    };
    std::vector<Cursor> rows;
    for (const Row& row : m_index.rowsOf(track))
        rows.emplace_back(*this, row, from);
    std::vector<Open> open;
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
            if (!open.empty())
                open.back().hasBegun = true;
            open.push_back({*rows[depth], rows[depth].place(), false});
            rows[depth].next();
            opens(depth, open.back().item.name);
            continue;
        }
        if (open.empty())
            return;
        const Open its = open.back();
        open.pop_back();
        ends(open.size(), its.item, its.place, open.empty() ? 0 : open.back().place);
    }
}

TrackAnswers::Part TrackAnswers::partOf(const TrackEntry& track, std::int64_t from, std::int64_t to) const {
    struct Level {
        std::uint32_t path;
        std::uint64_t inner;
    };
    Part part;
    Directory<std::uint64_t, std::uint32_t> paths; // by the one above and the name
    Directory<std::uint64_t, std::size_t> alike;   // by path and counter
    std::vector<Level> open;
    std::vector<std::uint32_t> within(m_index.namesOf(track.table).size()); // how many calls are open, by name
    eachCall(
        track, from, to,
        [&](std::size_t, std::uint32_t name) {
            const std::uint32_t above = open.empty() ? 0 : open.back().path + 1;
            const bool isOutermost = name >= within.size() || within[name]++ == 0;
            const std::uint32_t path = paths.findOrMake(std::uint64_t{above} << 32 | name, [&] {
                part.paths.push_back({above, name, isOutermost});
                return static_cast<std::uint32_t>(part.paths.size() - 1);
            });
            open.push_back({path, 0});
        },
        [&](std::size_t depth, const Item& item, std::uint64_t place, std::uint64_t above) {
            const Level its = open.back();
            open.pop_back();
            Part::Path& path = part.paths[its.path];
            if (path.name < within.size())
                --within[path.name];
            if (fromBase(item.at) < from || fromBase(item.end()) > to) {
                part.cut.push_back(
                    {item, place, above, static_cast<std::uint32_t>(depth), its.path, path.isOutermost, its.inner});
                return;
            }
            const std::uint64_t duration = TimeBase::nanosecondsOf(item.more, track.frequency);
            if (!open.empty())
                open.back().inner += duration;
            ++path.calls;
            path.unfinished += item.isOpen;
            path.total += duration;
            path.self += duration - std::min(its.inner, duration);
            if (item.isOpen)
                return;
            const std::size_t at =
                alike.findOrMake(std::uint64_t{its.path} << 32 | Durations::counterOf(duration), [&] {
                    part.alike.push_back({its.path, 0, duration, duration});
                    return part.alike.size() - 1;
                });
            Part::Alike& those = part.alike[at];
            ++those.count;
            those.least = std::min(those.least, duration);
            those.most = std::max(those.most, duration);
        });
    return part;
}

template <class Take, class Ends>
void TrackAnswers::eachPart(const TrackEntry& track, std::int64_t from, std::int64_t to, const Take& take,
                            const Ends& ends) const {
    std::map<std::pair<std::uint32_t, std::uint64_t>, CutCall, std::greater<>> cut; // the deepest first
    const auto add = [&](const Part& part, std::int64_t begin, std::int64_t end) {
        const auto numbers = take(part, begin, end);
        for (const CutCall& call : part.cut) {
            const auto [at, isNew] = cut.try_emplace({call.depth, call.place}, call);
            if (isNew)
                at->second.path = numbers.empty() ? 0 : numbers[call.path];
            else
                at->second.inner += call.inner;
        }
    };
    Slices& slices = m_slices[static_cast<std::size_t>(&track - m_index.tracks().data())];
    const std::vector<std::int64_t>& moments = slices.moments;
    auto i = static_cast<std::size_t>(std::ranges::lower_bound(moments, from) - moments.begin());
    std::int64_t begin = from;
    do {
        if (i + 1 < moments.size() && begin == moments[i] && moments[i + 1] <= to) {
            std::call_once(slices.once[i], [&] { slices.parts[i] = partOf(track, moments[i], moments[i + 1]); });
            add(slices.parts[i], begin, moments[i + 1]);
            begin = moments[++i];
        } else {
            const std::int64_t end = i < moments.size() && begin < moments[i] ? std::min(moments[i], to) : to;
            add(partOf(track, begin, end), begin, end);
            begin = end;
        }
    } while (begin < to);
    for (const auto& [key, call] : cut) {
        const std::int64_t start = std::max(fromBase(call.item.at), from);
        const std::int64_t end = std::min(fromBase(call.item.end()), to);
        const std::uint64_t duration =
            TimeBase::nanosecondsOf(end > start ? static_cast<std::uint64_t>(end - start) : 0, track.frequency);
        ends(call, duration, duration - std::min(call.inner, duration));
        if (call.depth == 0)
            continue;
        if (const auto above = cut.find({call.depth - 1, call.above}); above != cut.end())
            above->second.inner += duration;
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
    bool hasClock = true;
    std::uint64_t whole = 0;
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        const auto add = [&](Sum& sum, bool isOutermost, std::uint64_t unfinished, std::uint64_t total,
                             std::uint64_t self) {
            sum.unfinished += unfinished;
            sum.total += isOutermost ? total : 0;
            sum.self += self;
            whole += self;
        };
        eachPart(
            *track, asked.from, asked.to,
            [&](const Part& part, std::int64_t, std::int64_t) {
                std::vector<Sum*> byPath;
                for (const Part::Path& path : part.paths) {
                    Sum& sum = sums[path.name];
                    add(sum, path.isOutermost, path.unfinished, path.total, path.self);
                    byPath.push_back(&sum);
                }
                for (const Part::Alike& its : part.alike) {
                    Durations& durations = byPath[its.path]->durations;
                    durations.add(its.least, its.most == its.least ? its.count : its.count - 1);
                    if (its.most != its.least)
                        durations.add(its.most);
                }
                return std::vector<std::uint32_t>();
            },
            [&](const CutCall& call, std::uint64_t duration, std::uint64_t self) {
                Sum& sum = sums[call.item.name];
                add(sum, call.isOutermost, call.item.isOpen, duration, self);
                if (!call.item.isOpen)
                    sum.durations.add(duration);
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
            return std::tie(other.duration, start, track, place) <
                   std::tie(duration, other.start, other.track, other.place);
        }
    };
    struct Stretch {
        std::uint64_t most; ///< the longest duration there
        const TrackEntry* track;
        std::int64_t from;
        std::int64_t to;
    };
    std::map<std::uint64_t, std::uint64_t> counts;
    std::vector<Stretch> stretches;
    std::set<Place> slowest;
    std::uint64_t count = 0;
    bool hasClock = true;
    const auto name = static_cast<std::uint32_t>(asked.number("name"));
    const auto look = [&](const TrackEntry& track, const Row& row, const Item& item, std::uint64_t place,
                          std::uint64_t duration) {
        slowest.insert({duration, fromBase(item.at), fromBase(item.end()),
                        static_cast<std::uint64_t>(&track - m_index.tracks().data()), row.place + place});
        if (slowest.size() > kSlowest)
            slowest.erase(std::prev(slowest.end()));
    };
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        eachPart(
            *track, asked.from, asked.to,
            [&](const Part& part, std::int64_t from, std::int64_t to) {
                std::uint64_t most = 0;
                bool isThere = false;
                for (const Part::Alike& its : part.alike) {
                    if (part.paths[its.path].name != name)
                        continue;
                    isThere = true;
                    most = std::max(most, its.most);
                    counts[binOf(its.least)] += its.count;
                    count += its.count;
                }
                if (isThere)
                    stretches.push_back({most, track, from, to});
                return std::vector<std::uint32_t>();
            },
            [&](const CutCall& call, std::uint64_t duration, std::uint64_t) {
                if (call.item.name != name || call.item.isOpen)
                    return;
                ++count;
                ++counts[binOf(duration)];
                look(*track, m_index.rowsOf(*track)[call.depth], call.item, call.place, duration);
            });
    }
    // What is in a part is looked at only where that may have one of the slowest.
    std::ranges::sort(stretches, [](const Stretch& one, const Stretch& other) {
        return std::tie(other.most, one.from) < std::tie(one.most, other.from);
    });
    for (const Stretch& its : stretches) {
        if (slowest.size() == kSlowest &&
            std::tie(its.most, slowest.rbegin()->start) < std::tie(slowest.rbegin()->duration, its.from))
            break;
        for (const Row& row : m_index.rowsOf(*its.track))
            eachItem(*its.track, row, its.from, its.to, [&](const Item& item, std::uint64_t place) {
                if (item.name == name && !item.isOpen && fromBase(item.at) >= its.from &&
                    fromBase(item.end()) <= its.to)
                    look(*its.track, row, item, place, TimeBase::nanosecondsOf(item.more, its.track->frequency));
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
    Directory<std::uint64_t, std::uint32_t> known; // by parent and name
    ReportColumn parents, names;
    bool hasClock = true, isCut = false;
    const auto add = [&](std::uint32_t number, std::uint64_t total, std::uint64_t self, std::uint64_t calls) {
        if (number == kNone)
            return;
        paths[number].total += total;
        paths[number].self += self;
        paths[number].calls += calls;
    };
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        eachPart(
            *track, asked.from, asked.to,
            [&](const Part& part, std::int64_t, std::int64_t) {
                std::vector<std::uint32_t> numbers;
                for (const Part::Path& path : part.paths) {
                    const std::uint32_t above = path.above > 0 ? numbers[path.above - 1] : kNone;
                    const std::uint64_t key = std::uint64_t{above + 1} << 32 | path.name;
                    const std::uint32_t* at = known.find(key);
                    if (!at && paths.size() >= kMostPaths) {
                        isCut = true;
                        at = &above;
                    } else if (!at) {
                        at = &(known[key] = static_cast<std::uint32_t>(paths.size()));
                        paths.emplace_back();
                        parents.add(std::uint32_t{above + 1});
                        names.add(path.name);
                    }
                    numbers.push_back(*at);
                    add(*at, path.total, path.self, path.calls);
                }
                return numbers;
            },
            [&](const CutCall& call, std::uint64_t duration, std::uint64_t self) {
                add(call.path, duration, self, 1);
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
    struct Wanted {
        std::vector<bool> names;
        std::uint64_t bits = 0; ///< of these
    };
    std::vector<std::optional<Wanted>> wanted(TrackIndex::tables().size());
    for (const TrackEntry& track : m_index.tracks()) {
        if (track.form != Form::Spans && track.form != Form::Marks)
            continue;
        std::optional<Wanted>& its = wanted[track.table];
        if (!its) {
            its.emplace();
            for (const std::string& name : m_index.namesOf(track.table)) {
                const bool isIt = matches(pattern, name);
                its->bits |= isIt ? TrackIndex::bitOf(its->names.size()) : 0;
                its->names.push_back(isIt);
            }
        }
        if (its->bits == 0)
            continue;
        const auto number = static_cast<std::int64_t>(&track - m_index.tracks().data());
        for (const Row& row : m_index.rowsOf(track)) {
            const std::span<const Block> blocks = m_index.blocksOf(row);
            const auto look = [&](const Block& block, std::uint32_t i) {
                const Item item = m_index.item(block, i);
                const Hit hit{fromBase(item.at), number, row.place + block.place + i};
                if (item.name >= its->names.size() || !its->names[item.name] || (isBack ? hit >= from : hit <= from))
                    return false;
                if (!best || (isBack ? hit > *best : hit < *best))
                    best = hit;
                return true;
            };
            // Of most blocks the bits tell that nothing that is wanted is there.
            const auto countOf = [&](const Block& block) { return (block.names & its->bits) != 0 ? block.count : 0; };
            bool isFound = false;
            if (!isBack) {
                for (std::size_t n = blockAt(row, from.at); n < blocks.size() && !isFound; ++n) {
                    if (best && fromBase(blocks[n].first) > best->at)
                        break;
                    const std::uint32_t count = countOf(blocks[n]);
                    for (std::uint32_t i = 0; i < count && !isFound; ++i)
                        isFound = look(blocks[n], i);
                }
            } else {
                const auto end = std::ranges::partition_point(
                    blocks, [&](const Block& block) { return fromBase(block.first) <= from.at; });
                for (auto n = static_cast<std::size_t>(end - blocks.begin()); n-- > 0 && !isFound;) {
                    if (best && fromBase(blocks[n].last) < best->at)
                        break;
                    for (std::uint32_t i = countOf(blocks[n]); i-- > 0 && !isFound;)
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
