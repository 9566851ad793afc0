#include "TrackAnswers.h"

#include "PictureCells.h"
#include "ReportPage.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/Durations.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/format/Glob.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace qvx {

using namespace Quorvex;

using Form = TrackIndex::Form;
using TrackEntry = TrackIndex::TrackEntry;

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

std::vector<const TrackEntry*> TrackAnswers::callTracks(const Asked& asked) const {
    if (asked.has("track"))
        return {&asked.track()};
    std::vector<const TrackEntry*> all;
    for (const TrackEntry& track : index().tracks()) {
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
        m_parts.each(
            *track, asked.from, asked.to,
            [&](const CallPart& part, std::int64_t, std::int64_t) {
                std::vector<Sum*> byPath;
                for (const CallPart::Path& path : part.paths) {
                    Sum& sum = sums[path.name];
                    add(sum, path.isOutermost, path.unfinished, path.total, path.self);
                    byPath.push_back(&sum);
                }
                for (const CallPart::Alike& its : part.alike) {
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
        slowest.insert(
            {duration, fromBase(item.at), fromBase(item.end()), std::uint64_t{numberOf(track)}, row.place + place});
        if (slowest.size() > kSlowest)
            slowest.erase(std::prev(slowest.end()));
    };
    for (const TrackEntry* track : callTracks(asked)) {
        hasClock = hasClock && track->frequency != 0;
        m_parts.each(
            *track, asked.from, asked.to,
            [&](const CallPart& part, std::int64_t from, std::int64_t to) {
                std::uint64_t most = 0;
                bool isThere = false;
                for (const CallPart::Alike& its : part.alike) {
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
                look(*track, index().rowsOf(*track)[call.depth], call.item, call.place, duration);
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
        for (const Row& row : index().rowsOf(*its.track))
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
        m_parts.each(
            *track, asked.from, asked.to,
            [&](const CallPart& part, std::int64_t, std::int64_t) {
                std::vector<std::uint32_t> numbers;
                for (const CallPart::Path& path : part.paths) {
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

std::string TrackAnswers::tile(const Asked& asked) const {
    Answer answer;
    std::set<std::uint64_t> texts;
    PictureCells cells(*this, asked.from, asked.to, asked.number("cell"));
    for (const std::int64_t number : asked.tracks()) {
        const TrackEntry& track = asked.trackOf(number);
        const bool isMarks = track.form == Form::Marks;
        // Spans: how many each row has, when they begin, how long they take, names, places, which are open.
        // Marks: moments, names, texts, places. Values: moments, values, places.
        ReportColumn counts, at, second, third, places, open;
        std::uint64_t all = 0, lastOpen = 0, lastPlace = 0;
        for (const Row& row : index().rowsOf(track)) {
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
                                       .add("text", index().text(item.more).substr(0, kTextShown)));
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
    for (const TrackEntry& track : index().tracks()) {
        if (track.form != Form::Marks)
            continue;
        eachItem(track, index().rowsOf(track).front(), asked.from, asked.to,
                 [&](const Item& item, std::uint64_t place) {
                     const std::string_view name = nameOf(track, item), text = index().text(item.more);
                     if (!filter.empty() && !matches(filter, name) && !matches(filter, text))
                         return true;
                     ++count;
                     const std::int64_t at = fromBase(item.at);
                     if (rows.size() < most || (!rows.empty() && at < rows.rbegin()->first)) {
                         rows.emplace(at, JsonLine()
                                              .add("track", std::uint64_t{numberOf(track)})
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
    for (const TrackEntry& track : index().tracks()) {
        if (track.form != Form::Spans && track.form != Form::Marks)
            continue;
        std::optional<Wanted>& its = wanted[track.table];
        if (!its) {
            its.emplace();
            for (const std::string& name : index().namesOf(track.table)) {
                const bool isIt = matches(pattern, name);
                its->bits |= isIt ? TrackIndex::bitOf(its->names.size()) : 0;
                its->names.push_back(isIt);
            }
        }
        if (its->bits == 0)
            continue;
        const auto number = static_cast<std::int64_t>(numberOf(track));
        for (const Row& row : index().rowsOf(track)) {
            const std::span<const Block> blocks = index().blocksOf(row);
            const auto look = [&](const Block& block, std::uint32_t i) {
                const Item item = index().item(block, i);
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
    const auto number = static_cast<std::uint64_t>(asked.number("index"));
    const std::span<const Row> rows = index().rowsOf(track);
    const auto row = std::ranges::find_if(
        rows, [number](const Row& its) { return number >= its.place && number - its.place < its.count; });
    if (row == rows.end())
        return "null\n";
    const std::uint64_t place = number - row->place;
    const std::span<const Block> blocks = index().blocksOf(*row);
    const Block& block =
        *std::prev(std::ranges::partition_point(blocks, [place](const Block& its) { return its.place <= place; }));
    const Item item = index().item(block, static_cast<std::uint32_t>(place - block.place));
    JsonLine line;
    line.addSigned("start", fromBase(item.at));
    if (track.form == Form::Marks)
        return line.add("name", std::uint64_t{item.name}).add("text", index().text(item.more)).text();
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
        return std::string(index().lines());
    const auto at = kAnswers.find(question);
    if (at == kAnswers.end())
        return std::nullopt;
    try {
        return (this->*at->second)(Asked(index(), words));
    } catch (const NotUnderstood&) {
        return std::nullopt;
    }
}

} // namespace qvx
