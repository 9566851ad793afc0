#include "quorvex/analysis/TraceTables.h"

#include "quorvex/analysis/ArrowCData.h"
#include "quorvex/analysis/CallTimes.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/ReadWatch.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "tests/support/Doubles.h"
#include "tests/support/Golden.h"
#include "tests/support/RandomTraces.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TraceSteps.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>

namespace Quorvex::test {
namespace {

/// The values of a row as texts, by column.
struct Row {
    std::shared_ptr<const std::map<std::string, std::size_t>> columns;
    std::vector<std::string> values;

    const std::string& at(const std::string& column) const { return values[columns->at(column)]; }
    std::string& operator[](const std::string& column) { return values[columns->at(column)]; }
    bool operator==(const Row& other) const { return values == other.values; }
};

/// A value as text; "-" where there is none.
std::string textOf(const ArrowSchema& schema, const ArrowArray& array, std::int64_t row) {
    const auto bit = [row](const void* bits) {
        return (static_cast<const unsigned char*>(bits)[row / 8] >> row % 8 & 1) != 0;
    };
    if (array.buffers[0] && !bit(array.buffers[0]))
        return "-";
    const void* const values = array.buffers[1];
    if (schema.dictionary)
        return textOf(*schema.dictionary, *array.dictionary, static_cast<const std::int32_t*>(values)[row]);
    switch (schema.format[0]) {
    case 'l':
        return std::to_string(static_cast<const std::int64_t*>(values)[row]);
    case 'i':
        return std::to_string(static_cast<const std::int32_t*>(values)[row]);
    case 'g': {
        std::ostringstream out;
        out << static_cast<const double*>(values)[row];
        return out.str();
    }
    case 'b':
        return bit(values) ? "1" : "0";
    default: {
        const auto* const ends = static_cast<const std::int32_t*>(values);
        return std::string(static_cast<const char*>(array.buffers[2]) + ends[row],
                           static_cast<std::size_t>(ends[row + 1] - ends[row]));
    }
    }
}

/// A stream that is released at the end.
struct Stream {
    Stream(const TraceTables& tables, TraceTable table, const TableOptions& options = {}) {
        tables.open(table, options, its);
    }
    ~Stream() { release(); }
    void release() {
        if (its.release)
            its.release(&its);
    }

    ArrowArrayStream its{};
};

std::vector<Row> rowsOf(const TraceTables& tables, TraceTable table, const TableOptions& options = {}) {
    Stream stream(tables, table, options);
    ArrowSchema schema{};
    EXPECT_EQ(stream.its.get_schema(&stream.its, &schema), 0);
    auto columns = std::make_shared<std::map<std::string, std::size_t>>();
    for (std::int64_t i = 0; i < schema.n_children; ++i)
        columns->try_emplace(schema.children[i]->name, static_cast<std::size_t>(i));
    std::vector<Row> rows;
    while (true) {
        ArrowArray batch{};
        const int error = stream.its.get_next(&stream.its, &batch);
        EXPECT_EQ(error, 0) << stream.its.get_last_error(&stream.its);
        if (error != 0 || !batch.release)
            break;
        EXPECT_GT(batch.length, 0);
        EXPECT_LE(batch.length, static_cast<std::int64_t>(options.rows));
        const std::size_t before = rows.size();
        rows.resize(before + static_cast<std::size_t>(batch.length), Row{columns, {}});
        for (std::int64_t column = 0; column < schema.n_children; ++column) {
            const ArrowSchema& its = *schema.children[column];
            const ArrowArray& values = *batch.children[column];
            EXPECT_TRUE(values.null_count == 0 || (its.flags & ARROW_FLAG_NULLABLE) != 0) << its.name;
            for (std::int64_t i = 0; i < batch.length; ++i)
                rows[before + static_cast<std::size_t>(i)].values.push_back(textOf(its, values, i));
        }
        batch.release(&batch);
    }
    schema.release(&schema);
    return rows;
}

/// Some columns of all rows: "a b|c d".
std::string linesOf(const std::vector<Row>& rows, const std::string& columns) {
    std::string lines;
    for (const Row& row : rows) {
        lines += lines.empty() ? "" : "|";
        std::istringstream names(columns);
        std::string name, line;
        while (names >> name)
            line += (line.empty() ? "" : " ") + row.at(name);
        lines += line;
    }
    return lines;
}

TEST(TraceTables, HaveARowForEachCallWhereItEnds) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"+1 10 7 -1 15 7", "7 1 10 15 5 5 0 - 1 1"},
        {"=1 f =2 g +1 10 7 +2 12 7 -2 15 7 +2 16 7 -2 17 7 -1 20 7",
         "7 2 12 15 3 3 1 1 1 1|7 2 16 17 1 1 1 1 1 1|7 1 10 20 10 6 0 - 1 1"},
        {"+1 10 7 +1 11 8 -1 13 7 +2 12 8 -2 15 8 -1 16 8",
         "7 1 10 13 3 3 0 - 1 1|8 2 12 15 3 3 1 1 1 1|8 1 11 16 5 2 0 - 1 1"},
        // What runs on a core where the thread is not known.
        {"+1 10 ? -1 15 ?", "- 1 10 15 5 5 0 - 1 1"},
        // A missing leave ends with the function around it, or with the thread's last packet.
        {"+1 10 7 +2 12 7 +3 13 7 -1 20 7", "7 3 13 20 7 7 2 2 1 0|7 2 12 20 8 1 1 1 1 0|7 1 10 20 10 2 0 - 1 1"},
        {"+1 10 7 +2 12 7 -2 14 7", "7 2 12 14 2 2 1 1 1 1|7 1 10 14 4 2 0 - 1 0"},
        // A leave of what had not been entered.
        {"-1 5 7 +1 10 7 -2 12 7 -1 15 7", "7 1 - 5 - - 0 - 0 1|7 2 - 12 - - 1 - 0 1|7 1 10 15 5 5 0 - 1 1"},
        // One without a number leaves what runs.
        {"+1 10 7 -4294967295 15 7", "7 1 10 15 5 5 0 - 1 1"},
        {"+1 10 7 -1 5 7", "7 1 10 5 0 0 0 - 1 1"},
        {"+1 10 7 -1 18446744073709551615 7", "7 1 10 - - - 0 - 1 1"},
    };
    const TemporaryDirectory directory;
    for (const auto& [steps, expected] : cases) {
        const TraceTables tables({directory.write("trace.qvx", traceOfSteps(std::string("@1000 ") + steps))});
        EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Spans),
                          "thread function_id start_tick end_tick duration_ticks self_ticks depth parent_id has_enter "
                          "has_leave"),
                  expected)
            << steps;
    }
    const TraceTables tables({directory.write(
        "trace.qvx", traceOfSteps("@1000 =1 one =2 t\xffwo +1 1 7@3 +2 2 7@4 -2 4 7@5 -1 7 7") +
                         wireOf(CProcessEnter(CCoreContext(8, 3, 7, 0), 55)) + traceOfSteps("+1 8 7@3 -1 9 7@3"))});
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Spans),
                      "file function parent start_ns end_ns duration_ns self_ns callee_ticks core process"),
              "0 t\xef\xbf\xbdwo one 2000000 4000000 2000000 2000000 0 4 -|"
              "0 one - 1000000 7000000 6000000 4000000 2 3 -|"
              "0 one - 8000000 9000000 1000000 1000000 0 3 55");
}

/// Calls in pages, some of them with leaves or enters that are missing; relative packets, and enough of a page between.
std::string manyCalls(unsigned seed, unsigned pages, unsigned inAThousandMissing) {
    std::mt19937 random(seed);
    const auto below = [&random](unsigned limit) {
        return std::uniform_int_distribution<unsigned>(0, limit - 1)(random);
    };
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    std::map<std::uint32_t, std::vector<std::uint32_t>> open;
    CTimestamp clock(0, std::uint64_t{1'000'000'000});
    writer.put(&clock);
    std::uint64_t tick = 100;
    CData filling;
    const std::string bytes(60, 'x');
    while (sink.bytes.size() < pages * kPageSize) {
        const std::uint32_t thread = below(3);
        const CCoreContext context(++tick, below(2), thread, 0x1000);
        std::vector<std::uint32_t>& calls = open[thread];
        if (below(500) == 0) {
            CFunctionDefine define(context, below(6), ("name" + std::to_string(below(3))).c_str());
            writer.put(&define);
        }
        if (below(700) == 0) {
            CProcessEnter process(context, below(4));
            writer.put(&process);
        }
        const bool isMissing = below(1000) < inAThousandMissing;
        if (calls.size() < 2 || (calls.size() < 20 && below(20) < 11)) {
            calls.push_back(below(6));
            CFunctionEnter enter(context, calls.back());
            if (!isMissing)
                writer.put(&enter);
        } else {
            CFunctionLeave leave(context, calls.back());
            calls.pop_back();
            if (!isMissing)
                writer.put(&leave);
        }
        CMessage message(tick, 0, bytes.c_str());
        writer.put(&message);
    }
    writer.flush();
    return sink.bytes;
}

/// Some bytes changed.
std::string damaged(std::string trace, unsigned seed) {
    RandomPackets random(seed);
    damage(trace, random);
    return trace;
}

/// Packets of all kinds.
std::string manyKinds(unsigned seed, unsigned pages, bool isPaged) {
    RandomPackets random(seed);
    return randomTrace(random, pages, isPaged);
}

TEST(TraceTables, AreTheSameInHoweverManyThreadsAndPieces) {
    const std::string traces[] = {manyCalls(1, 4, 0), manyCalls(2, 4, 20), damaged(manyCalls(3, 4, 0), 3),
                                  damaged(manyKinds(4, 4, true), 4), damaged(manyKinds(5, 3, false), 5)};
    const TemporaryDirectory directory;
    for (const std::string& trace : traces) {
        const std::string path = directory.write("trace.qvx", trace);
        const TraceTables tables({path});
        for (const TraceTable table : kTraceTables) {
            if (&trace < &traces[3] && table == TraceTable::Packets)
                continue; // there are many, and more of the others
            TableOptions options;
            options.threads = 1;
            options.portion = 1000;
            const std::vector<Row> expected = rowsOf(tables, table, options);
            options.portion = 1;
            options.rows = 500;
            for (const unsigned threads : {1U, 4U}) {
                options.threads = threads;
                EXPECT_TRUE(rowsOf(tables, table, options) == expected) << &trace - traces << ' ' << int(table);
            }
            if (table != TraceTable::Losses)
                continue;
            TraceFile file(path);
            while (file.advance()) {
            }
            std::uint64_t bytes = 0;
            for (const Row& row : expected)
                bytes += row.at("reason") == "damage" ? std::stoull(row.at("size")) : 0;
            EXPECT_EQ(bytes, file.report().damage.bytes) << &trace - traces;
        }
    }
}

TEST(TraceTables, TellTheSameAsTheTimesOfCalls) {
    const TemporaryDirectory directory;
    const std::string path = directory.write("trace.qvx", manyCalls(5, 4, 10));
    CallTimes times;
    CTraceNames names;
    TraceFile file(path);
    times.read(file, names, 0);
    std::map<std::uint64_t, std::array<std::uint64_t, 3>> sums; // calls, unfinished, self
    std::uint64_t stray = 0;
    TableOptions options;
    options.portion = 1;
    options.columns = {"function_id", "self_ns", "has_enter", "has_leave"};
    for (const Row& row : rowsOf(TraceTables({path}), TraceTable::Spans, options)) {
        stray += row.at("has_enter") == "0";
        if (row.at("has_enter") == "0")
            continue;
        auto& [calls, unfinished, self] = sums[std::stoull(row.at("function_id"))];
        ++calls;
        unfinished += row.at("has_leave") == "0";
        self += std::stoull(row.at("self_ns"));
    }
    EXPECT_EQ(stray, times.strayLeaves());
    ASSERT_EQ(sums.size(), times.times().size());
    for (const auto& [key, its] : times.times())
        EXPECT_EQ(sums[key.function], (std::array{its.calls, its.unfinished, its.self})) << key.function;
}

std::int64_t numberIn(const Row& row, const char* column) {
    return std::stoll(row.at(column));
}

/// The calls of ranges that follow one another, joined as TraceTables says.
std::vector<Row> joined(const std::vector<std::vector<Row>>& ranges) {
    struct Open {
        Row row;
        std::int64_t callees;
    };
    std::vector<Row> rows;
    std::map<std::string, std::vector<Open>> threads;
    const auto end = [&rows](std::vector<Open>& open, const Row& leave, bool isLeft) {
        Open call = open.back();
        open.pop_back();
        call.row["end_tick"] = leave.at("end_tick");
        call.row["has_leave"] = isLeft ? "1" : "0";
        call.row["leave_offset"] = isLeft ? leave.at("leave_offset") : "-";
        const std::int64_t duration = numberIn(call.row, "end_tick") - numberIn(call.row, "start_tick");
        call.row["duration_ticks"] = std::to_string(duration);
        call.row["self_ticks"] = std::to_string(duration - call.callees);
        if (!open.empty())
            open.back().callees += duration;
        rows.push_back(call.row);
    };
    for (const std::vector<Row>& range : ranges) {
        std::map<std::string, std::vector<Row>> words;
        std::map<std::string, std::int64_t> throughout;
        for (const Row& row : range) {
            const bool isEntered = row.at("has_enter") == "1", isLeft = row.at("has_leave") == "1";
            if (isEntered && isLeft)
                rows.push_back(row);
            else if (isEntered || isLeft)
                words[row.at("thread")].push_back(row);
            else
                throughout[row.at("thread")] = numberIn(row, "callee_ticks");
            words[row.at("thread")];
        }
        for (auto& [thread, word] : words) {
            const auto place = [](const Row& row) {
                return numberIn(row, row.at("has_enter") == "1" ? "enter_offset" : "leave_offset");
            };
            std::ranges::sort(word, {}, place);
            std::vector<Open>& open = threads[thread];
            auto lastLeave =
                std::find_if(word.rbegin(), word.rend(), [](const Row& row) { return row.at("has_leave") == "1"; });
            const std::size_t behind = static_cast<std::size_t>(word.rend() - lastLeave);
            for (std::size_t i = 0; i <= word.size(); ++i) {
                if (i == behind && !open.empty())
                    open.back().callees += throughout[thread];
                if (i == word.size())
                    break;
                const Row& row = word[i];
                if (row.at("has_enter") == "1") {
                    open.push_back({row, numberIn(row, "callee_ticks")});
                    continue;
                }
                const auto its = std::find_if(open.rbegin(), open.rend(), [&](const Open& call) {
                    return call.row.at("function_id") == row.at("function_id");
                });
                if (its == open.rend()) {
                    rows.push_back(row);
                    continue;
                }
                its->callees += numberIn(row, "callee_ticks");
                for (std::ptrdiff_t n = its - open.rbegin(); n >= 0; --n)
                    end(open, row, n == 0);
            }
        }
    }
    for (auto& [thread, open] : threads) {
        while (!open.empty()) {
            rows.push_back(open.back().row);
            open.pop_back();
        }
    }
    return rows;
}

TEST(TraceTables, OfRangesOfPagesCanBeJoined) {
    const TemporaryDirectory directory;
    for (const unsigned missing : {0U, 10U}) {
        const std::string path = directory.write("trace.qvx", manyCalls(missing + 3, 4, missing));
        const TraceTables tables({path});
        const std::string content = contentOf(path);
        const std::uint64_t pages = missing > 0 ? 2 : 1;
        std::vector<std::vector<Row>> ranges;
        for (std::uint64_t page = 0; page * kPageSize < content.size(); page += pages) {
            TableOptions options;
            options.firstPage = page;
            options.pages = pages;
            options.portion = 1;
            ranges.push_back(rowsOf(tables, TraceTable::Spans, options));
            // The same in memory, by what another has learned of the names.
            const auto part = std::make_shared<const std::string>(content.substr(
                static_cast<std::size_t>(page * kPageSize), static_cast<std::size_t>(pages * kPageSize)));
            const TraceTables inMemory({TableInput("part", part, page * kPageSize)}, {tables.definitions(0)});
            EXPECT_TRUE(rowsOf(inMemory, TraceTable::Spans) == ranges.back()) << page;
        }
        // Self times of calls with faults within depend on what they are joined with.
        const std::string columns = "thread function_id function start_tick enter_offset" +
                                    std::string(missing > 0 ? "" : " leave_offset end_tick self_ticks");
        const auto sorted = [&](std::vector<Row> rows) {
            std::erase_if(rows,
                          [](const Row& row) { return row.at("has_leave") == "0" || row.at("has_enter") == "0"; });
            std::ranges::sort(rows, {}, [](const Row& row) { return numberIn(row, "enter_offset"); });
            return linesOf(rows, columns);
        };
        const std::vector<Row> whole = rowsOf(tables, TraceTable::Spans);
        ASSERT_GT(whole.size(), 3000U);
        EXPECT_TRUE(sorted(joined(ranges)) == sorted(whole)) << missing << ' ' << pages;
    }
}

TEST(TraceTables, TellWhatPacketsTell) {
    const CCoreContext context(5, 1, 2, 0x40);
    const std::string bytes = "\1\2\3";
    const std::string trace =
        wireOf(CTimestamp(0, std::uint64_t{1'000'000})) + traceOfSteps("=#3 level =!4 alarm") +
        wireOf(CVariableDefine(context, 6, 1, "speed")) + wireOf(CStateMachineDefine(7, "door")) +
        wireOf(CStateMachineInstanceDefine(7, 1, "front")) + wireOf(CStateDefine(7, 2, "open")) +
        wireOf(CTransitionDefine(7, 3, 2, 9, "push")) + wireOf(CSync(CCoreContext(16, 3, 4, 0x100))) +
        wireOf(CRelCounterValue(CRelCoreContext(1, 0), 3, TCounter_t(std::uint64_t{17}))) +
        wireOf(CCounterValueDim1(context, 3, TCounter_t(std::uint64_t{18}), TCounterIdx_t(std::uint64_t{5}))) +
        wireOf(CVariableWrite(context, 6, CData(reinterpret_cast<const unsigned char*>(bytes.data()), 3))) +
        wireOf(CEvent(context, 4)) + wireOf(CMessage(6, 2, "hello")) + wireOf(CInitialState(7, 1, 2, 8, 9)) +
        wireOf(CTransition(7, 1, 9, 8, 10)) + wireOf(CTraceBroken(CCoreContext(11, 1, 2, 0)));
    const TemporaryDirectory directory;
    const TraceTables tables({directory.write("trace.qvx", trace)});
    struct Case {
        TraceTable table;
        const char* columns;
        std::string rows;
    };
    const Case cases[] = {
        {TraceTable::Counters, "tick time_ns core thread counter_id counter value integer bits index1 index2",
         "17 17000 3 4 3 level 17 17 17 - -|5 5000 1 2 3 level 18 18 18 5 -"},
        {TraceTable::Variables, "tick core thread address variable_id variable is_write value data",
         "5 1 2 64 6 speed 1 66051 \3\2\1"},
        {TraceTable::Events, "tick core thread address event_id event value data", "5 1 2 64 4 alarm - "},
        {TraceTable::Messages, "tick time_ns priority text", "6 6000 2 hello"},
        {TraceTable::States,
         "tick core machine_id machine instance_id instance transition_id transition state_id state data",
         "9 8 7 door 1 front - - 2 open |10 8 7 door 1 front 9 push 2 open "},
        {TraceTable::Threads, "thread packets first_tick last_tick last_ns", "2 6 0 11 11000|4 1 17 17 17000"},
        {TraceTable::Functions, "file function_id function", ""},
        {TraceTable::Losses, "reason size tick", "broken - 11"},
        {TraceTable::Packets, "kind tick core thread address id name text",
         "CounterDefine 0 1 2 - 3 level level|EventDefine - - - - 4 alarm alarm|"
         "VariableDefine 5 1 2 64 6 speed speed|StateMachineDefine - - - - 7 door door|"
         "StateMachineInstanceDefine - - - - 1 front front|StateDefine - - - - 2 open open|"
         "TransitionDefine - - - - 9 push push|CounterValue 17 3 4 256 3 level -|"
         "CounterValueDim1 5 1 2 64 3 level -|VariableWrite 5 1 2 64 6 speed -|Event 5 1 2 64 4 alarm -|"
         "Message 6 - - - - - hello|InitialState 9 8 - - 2 open -|Transition 10 8 - - 9 push -|"
         "TraceBroken 11 1 2 0 - - -"},
    };
    for (const Case& its : cases)
        EXPECT_EQ(linesOf(rowsOf(tables, its.table), its.columns), its.rows) << tableFacts(its.table).name;
    TableOptions options;
    options.window = {6, 10};
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Packets, options), "kind"), "Message|InitialState");
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Packets, {.kinds = {"CounterValue", "Event"}}), "kind"),
              "CounterValue|Event");
}

TEST(TraceTables, TellWhatCountersAreOf) {
    const TemporaryDirectory directory;
    const TraceTables tables({directory.write(
        "trace.qvx", traceOfSteps("#1 1 7 5 #2 1 7 1.5 #3 1 7 -5") +
                         wireOf(CCounterValue(CCoreContext(1, 1, 7, 0), 4, TCounter_t(std::uint64_t{1} << 63))) +
                         wireOf(CCounterValue(CCoreContext(2, 1, 7, 0), 4, TCounter_t(std::uint64_t{1}))))});
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Counters), "counter_id value integer bits"),
              "1 5 5 5|2 1.5 - 4609434218613702656|3 -5 -5 -5|4 9.22337e+18 - -9223372036854775808|4 1 1 1");
}

TEST(TraceTables, ShareNamesAcrossFiles) {
    const TemporaryDirectory directory;
    const TraceTables tables({directory.write("a.qvx", traceOfSteps("@1000 +1 1 7 -1 2 7 +2 3 7 -2 4 7")),
                              directory.write("b.qvx", traceOfSteps("=1 one =2 two +2 1 8 -2 2 8")),
                              directory.write("c.qvx", traceOfSteps("=1 other =1 other +1 1 9 -1 2 9"))});
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Spans), "file thread function start_ns"),
              "0 7 one 1000000|0 7 two 3000000|1 8 two -|2 9 other -");
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Functions), "file function_id function"), "1 1 one|1 2 two|2 1 other");
    // One dictionary for all batches.
    Stream stream(tables, TraceTable::Spans, {.columns = {"function"}, .rows = 1});
    ArrowArray first{}, second{};
    ASSERT_EQ(stream.its.get_next(&stream.its, &first), 0);
    ASSERT_EQ(stream.its.get_next(&stream.its, &second), 0);
    EXPECT_EQ(first.children[0]->dictionary->buffers[2], second.children[0]->dictionary->buffers[2]);
    EXPECT_EQ(first.children[0]->dictionary->length, 3);
    // A column outlives its batch, and both outlive their stream.
    stream.release();
    ArrowArray column = *first.children[0];
    first.children[0]->release = nullptr;
    first.release(&first);
    EXPECT_EQ(first.release, nullptr);
    EXPECT_EQ(static_cast<const std::int32_t*>(column.buffers[1])[0], 0);
    EXPECT_EQ(static_cast<const char*>(column.dictionary->buffers[2])[0], 'o');
    column.release(&column);
    EXPECT_EQ(column.release, nullptr);
    second.release(&second);
}

TEST(TraceTables, NameThreads) {
    const auto fact = [](const char* text) { return wireOf(CMessage(1, CMessagePayload::kDebugLevel, text)); };
    const std::string calls = traceOfSteps("@1000 +1 1 7 -1 2 7 +1 3 8 -1 4 8 +1 5 9 -1 6 9 +1 7 ? -1 8 ?");
    const std::string marks = traceOfSteps("#1 1 7 5 !1 2 9");
    const TemporaryDirectory directory;
    const TraceTables tables(
        {directory.write("a.qvx", fact("quorvex.thread pid=1 tid=7 name=first") + calls + marks +
                                      fact("quorvex.thread pid=1 tid=7 name=ma in")),
         directory.write("b.qvx", calls + fact("quorvex.thread pid=2 tid=8 name=other") +
                                      fact("quorvex.thread pid=2 tid=9") + fact("quorvex.name pid=2 name=prog"))});
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Spans), "file thread thread_name"),
              "0 7 ma in|0 8 other|0 9 prog|0 - -|1 7 ma in|1 8 other|1 9 prog|1 - -");
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Threads), "file thread thread_name packets"),
              "0 7 ma in 3|0 8 other 2|0 9 prog 3|0 - - 2|1 7 ma in 2|1 8 other 2|1 9 prog 2|1 - - 2");
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Counters), "thread thread_name"), "7 ma in");
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Events), "thread thread_name"), "9 prog");
    EXPECT_EQ(linesOf(rowsOf(tables, TraceTable::Packets, {.kinds = {"CounterValue"}}), "thread thread_name"),
              "7 ma in");
    // What a file tells goes before what others do.
    const TraceTables both({directory.write("c.qvx", fact("quorvex.thread pid=1 tid=7 name=mine") + calls),
                            directory.write("d.qvx", fact("quorvex.thread pid=2 tid=7 name=its") + calls)});
    EXPECT_EQ(linesOf(rowsOf(both, TraceTable::Spans, {.window = {1, 2}}), "file thread_name"), "0 mine|1 its");
}

TEST(TraceTables, ReadOnlyThePagesOfAWindow) {
    struct Count : ReadWatch {
        void read(std::uint64_t bytes) override { all += bytes; }
        std::atomic<std::uint64_t> all{0};
    };
    const TemporaryDirectory directory;
    constexpr unsigned kPages = 40;
    const std::string trace = manyCalls(6, kPages, 10);
    const TraceTables paged({directory.write("paged.qvx", trace)});
    const auto rows = [](const TraceTables& tables, TraceTable table, TickWindow window, std::uint64_t& bytes) {
        Count count;
        TableOptions options;
        options.columns = {"file", table == TraceTable::Threads ? "first_tick" : "tick"};
        options.window = window;
        options.watch = &count;
        const std::string lines = linesOf(rowsOf(tables, table, options), options.columns[1]);
        bytes = count.all;
        return lines;
    };
    std::uint64_t bytes = 0;
    const std::string all = rows(paged, TraceTable::Messages, {}, bytes);
    EXPECT_GE(bytes, trace.size());
    const auto last = static_cast<std::uint64_t>(std::ranges::count(all, '|')) + 101;
    const auto between = [&](std::uint64_t from, std::uint64_t to) {
        std::string ticks;
        for (std::uint64_t tick = std::max<std::uint64_t>(from, 101); tick < std::min(to, last + 1); ++tick)
            ticks += (ticks.empty() ? "" : "|") + std::to_string(tick);
        return ticks;
    };
    ASSERT_EQ(all, between(0, UINT64_MAX));
    const std::uint64_t middle = last / 2;
    for (const auto& [from, to] : std::initializer_list<TickWindow>{{0, 1},
                                                                    {0, 300},
                                                                    {middle, middle + 1},
                                                                    {middle, middle + last / kPages},
                                                                    {last, UINT64_MAX},
                                                                    {last + 1, last + 9}}) {
        EXPECT_EQ(rows(paged, TraceTable::Messages, {from, to}, bytes), between(from, to)) << from;
        EXPECT_LT(bytes, 10 * kPageSize) << from;
    }
    EXPECT_EQ(rows(paged, TraceTable::Threads, {middle, middle + 1}, bytes), std::to_string(middle));
    EXPECT_LT(bytes, 10 * kPageSize);
    // Times that go back from page to page tell nothing of the pages.
    const TraceTables twice({directory.write("twice.qvx", trace + trace)});
    EXPECT_EQ(rows(twice, TraceTable::Messages, {middle, middle + 1}, bytes),
              between(middle, middle + 1) + '|' + between(middle, middle + 1));
}

TEST(TraceTables, TellWhatIsLost) {
    const TemporaryDirectory directory;
    const auto lossesOf = [&](const std::string& trace) {
        return linesOf(rowsOf(TraceTables({directory.write("trace.qvx", trace)}), TraceTable::Losses),
                       "file_offset reason size tick");
    };
    std::string calls;
    for (unsigned i = 0; i < 20; ++i)
        calls += traceOfSteps("+1 10 7 -1 15 7");
    const auto at = [&](std::size_t less) { return std::to_string(calls.size() - less); };
    EXPECT_EQ(lossesOf(calls), "");
    EXPECT_EQ(lossesOf(calls.substr(0, calls.size() - 1)), at(30) + " cut 29 10");
    const std::string unknown("\x20\x02xy", 4);
    EXPECT_EQ(lossesOf(calls + unknown + unknown + calls), at(0) + " damage 8 15");
    EXPECT_EQ(lossesOf(calls + unknown), at(0) + " damage 4 15");
    const std::string enabled = wireOf(CTraceEnabled(1000, SFrameConfig()));
    EXPECT_EQ(lossesOf(enabled + calls).substr(0, 8), std::to_string(enabled.size() + calls.size()) + " end");
}

TEST(TraceTables, SayWhyTheyCannotBeHad) {
    const TemporaryDirectory directory;
    const TraceTables missing({directory.path("none.qvx")});
    Stream stream(missing, TraceTable::Packets);
    ArrowArray batch{};
    EXPECT_EQ(stream.its.get_last_error(&stream.its), nullptr);
    EXPECT_EQ(stream.its.get_next(&stream.its, &batch), EIO);
    EXPECT_EQ(stream.its.get_last_error(&stream.its), directory.path("none.qvx") + ": " + std::strerror(ENOENT));
    EXPECT_EQ(stream.its.get_next(&stream.its, &batch), EIO);
    ArrowArrayStream unused{};
    EXPECT_THROW(missing.open(TraceTable::Packets, {.kinds = {"Colour"}}, unused), std::invalid_argument);
    EXPECT_THROW(missing.open(TraceTable::Spans, {.columns = {"colour"}}, unused), std::invalid_argument);
    EXPECT_THROW(missing.open(TraceTable::Spans, {.columns = {"file", "file"}}, unused), std::invalid_argument);
    EXPECT_THROW(TraceTables({"a", "b"}, {"only one"}), std::invalid_argument);
}

TEST(TraceTables, GiveTheColumnsThatAreAskedFor) {
    const TemporaryDirectory directory;
    const TraceTables tables({directory.write("trace.qvx", traceOfSteps("=1 one +1 10 7 -1 15 7"))});
    for (const TraceTable table : kTraceTables) {
        EXPECT_EQ(Quorvex::tableOf(tableFacts(table).name), table);
        const std::vector<Row> all = rowsOf(tables, table);
        for (const TableColumn& column : tableFacts(table).columns) {
            const std::vector<Row> one = rowsOf(tables, table, {.columns = {column.name}});
            EXPECT_EQ(linesOf(one, column.name), linesOf(all, column.name)) << column.name;
        }
    }
    EXPECT_EQ(Quorvex::tableOf("no such table"), std::nullopt);
}

TEST(TableFacts, AreThoseOfTheDocument) {
    std::ostringstream out;
    out << "# Tables\n\n"
           "What traces tell, as tables for programs that know Arrow. `TraceTables` (quorvex/analysis/TraceTables.h) "
           "makes them, of\n"
           "whole files or of ranges of their pages; the rows stand in the order of the files, a call where it ends. "
           "Numbers are 64\n"
           "bits wide (`int64`) but for a few; *name* is a text that is told by its index in a dictionary, one for all "
           "batches. Where\n"
           "a value may be null, that is said behind its type. A test writes this page.\n";
    const std::map<std::string, std::string> types = {{"l", "int64"}, {"i", "int32"}, {"g", "float64"},
                                                      {"u", "text"},  {"z", "bytes"}, {"b", "bool"}};
    for (const TableFacts& table : tableFacts()) {
        out << "\n## " << table.name << "\n\nRows: " << table.meaning
            << ".\n\n| column | type | unit | meaning |\n|---|---|---|---|\n";
        for (const TableColumn& column : table.columns) {
            out << "| " << column.name << " | " << (column.isName ? "name" : types.at(column.format))
                << (column.isNullable ? ", null" : "") << " | " << column.unit << " | " << column.meaning << " |\n";
        }
    }
    expectGolden("../../docs/tables.md", out.str());
}

} // namespace
} // namespace Quorvex::test
