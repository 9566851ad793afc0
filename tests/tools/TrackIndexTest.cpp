#include "TrackIndex.h"

#include "TrackAnswers.h"
#include "quorvex/platform/OutputFile.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>
#include <zlib.h>

namespace Quorvex::test {

namespace {

using qvx::TrackAnswers;
using qvx::TrackIndex;

constexpr const char* kRows[] = {"Timestamp\t16\t0\t1000000000",
                                 "FunctionDefine\t28\t5\t1\t2\tInvalid\t0x7",
                                 "CharString\t4\tmain",
                                 "FunctionDefine\t28\t5\t1\t2\tInvalid\t0x8",
                                 "CharString\t4\tpart",
                                 "FunctionEnter\t28\t5\t1\t2\tInvalid\t0x7",
                                 "FunctionEnter\t28\t6\t1\t2\tInvalid\t0x8",
                                 "FunctionLeave\t28\t8\t1\t2\tInvalid\t0x8",
                                 "CounterValue\t36\t8\t1\t2\tInvalid\t0x5\t300",
                                 "CounterValue\t36\t9\t1\t2\tInvalid\t0x5\t200",
                                 "Message\t9\t10\t0",
                                 "CharString\t2\thi",
                                 "FunctionEnter\t28\t11\t1\t2\tInvalid\t0x8",
                                 "FunctionEnter\t28\t12\t2\t3\tInvalid\t0x8",
                                 "FunctionLeave\t28\t13\t1\t2\tInvalid\t0x7",
                                 "FunctionLeave\t28\t5000000000\t2\t3\tInvalid\t0x8"};
constexpr std::size_t kWords = 11; // of the header: what it is, size, places, check, and where all stands
constexpr std::size_t kSize = 1, kPlaces = 2, kCheck = 3, kLines = 6, kLinesSize = 7;

} // namespace

class TrackIndexFile : public testing::Test {
protected:
    TrackIndexFile() {
        std::string rows;
        for (const char* row : kRows)
            rows += std::string("\t") + row + '\n';
        make(rows);
        m_bytes = m_directory.content("index");
    }

    /// Makes the index of a trace.
    void make(const std::string& rows) {
        const std::string trace = m_directory.write("trace", rows);
        platform::OutputFile file;
        EXPECT_TRUE(file.create(m_directory.path().string()));
        qvx::TrackIndexWriter writer({trace}, file, false);
        EXPECT_EQ(writer.read(), qvx::Done);
        EXPECT_TRUE(writer.finish("", {trace}, "key"));
        EXPECT_TRUE(file.place(m_directory.path("index"), true));
    }
    static std::uint64_t word(const std::string& bytes, std::size_t number) {
        std::uint64_t its = 0;
        std::memcpy(&its, bytes.data() + 8 * number, 8);
        return its;
    }
    static void setWord(std::string& bytes, std::size_t number, std::uint64_t its) {
        std::memcpy(bytes.data() + 8 * number, &its, 8);
    }
    /// With the check that it should have.
    static std::string checked(std::string bytes) {
        const std::uint64_t places = std::min<std::uint64_t>(word(bytes, kPlaces), bytes.size());
        const auto* const all = reinterpret_cast<const Bytef*>(bytes.data());
        setWord(bytes, kCheck, crc32_z(0, all + places, bytes.size() - places));
        setWord(bytes, kCheck, crc32_z(0, all, 8 * kWords));
        return bytes;
    }
    bool opens(const std::string& bytes, const std::string& key = "key") {
        return m_index.open(m_directory.write("index", bytes), key);
    }
    /// Asks all there is; how many answers came.
    unsigned ask() const {
        const TrackAnswers answers(m_index);
        constexpr const char* kFar = "9223372036854775807";
        constexpr std::array<const char*, 2> kTimes[] = {{"0", "20"}, {"-9223372036854775808", kFar}, {kFar, "3"}};
        constexpr const char* kQuestions[] = {"tile", "table", "histogram", "flame", "marks", "next"};
        unsigned count = 0;
        for (const auto& [from, to] : kTimes) {
            TrackAnswers::Words words{
                {"from", from},           {"to", to}, {"name", "1"}, {"most", "2"}, {"cell", "2"}, {"pattern", "p*"},
                {"tracks", "0,1,2,3,4,5"}};
            for (const char* question : kQuestions)
                count += answers.answer(question, words).has_value();
            words["back"] = words["cell"] = "1";
            words["tracks"] = words["track"] = "2";
            for (const char* question : kQuestions)
                count += answers.answer(question, words).has_value();
        }
        for (const char* track : {"0", "1", "2", "3", "4", "5"}) {
            for (const char* index : {"0", "1", "2"})
                count += answers.answer("item", {{"track", track}, {"index", index}}).has_value();
        }
        return count;
    }

    TemporaryDirectory m_directory;
    std::string m_bytes;
    TrackIndex m_index;
};

TEST_F(TrackIndexFile, IsNotOpenedWhereItIsDamagedOrOfSomethingElse) {
    ASSERT_EQ(checked(m_bytes), m_bytes);
    EXPECT_TRUE(opens(m_bytes));
    EXPECT_EQ(ask(), 36U + 18U);
    EXPECT_FALSE(opens(m_bytes, "other"));
    EXPECT_FALSE(opens(m_bytes + '\0'));
    for (std::size_t size = 0; size < m_bytes.size(); ++size)
        EXPECT_FALSE(opens(m_bytes.substr(0, size))) << size;
    const std::size_t places = word(m_bytes, kPlaces);
    EXPECT_LT(8 * kWords, places);
    for (std::size_t at = 0; at < m_bytes.size(); at = at + 1 == 8 * kWords ? places : at + 1) {
        std::string damaged = m_bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 1 << at % 8);
        EXPECT_FALSE(opens(damaged)) << at;
    }
}

TEST_F(TrackIndexFile, IsTrustedInNothing) {
    const std::uint64_t all = ~std::uint64_t{0};
    unsigned opened = 0;
    for (std::size_t number = 0; number < m_bytes.size() / 8; ++number) {
        const std::uint64_t its = word(m_bytes, number);
        for (const std::uint64_t other :
             {std::uint64_t{0}, its + 8, its ^ all << 32, std::uint64_t{m_bytes.size()}, all >> 1}) {
            std::string damaged = m_bytes;
            setWord(damaged, number, other);
            if (number != kCheck && opens(checked(damaged))) {
                ++opened;
                ask();
            }
        }
    }
    EXPECT_GT(opened, 100U);
    std::string deep = m_bytes + std::string(std::size_t{1} << 20, '[');
    setWord(deep, kLines, m_bytes.size());
    setWord(deep, kLinesSize, deep.size() - m_bytes.size());
    setWord(deep, kSize, deep.size());
    EXPECT_FALSE(opens(checked(deep)));
}

TEST_F(TrackIndexFile, AnswersTheSameInSlices) {
    std::mt19937_64 random(3);
    std::string rows = "\tTimestamp\t16\t0\t3000000000\n";
    std::vector<std::uint64_t> open[2];
    std::uint64_t tick = 1000;
    for (unsigned i = 0; i < 60000; ++i) {
        const std::uint64_t thread = random() % 2;
        std::vector<std::uint64_t>& its = open[thread];
        const bool enters = its.size() <= 2 || (its.size() < 9 && random() % 2 == 0); // two of each thread do not end
        tick += !enters && random() % 7 == 0 ? 0 : 1 + random() % (1U << random() % 24);
        if (enters)
            its.push_back(its.size() < 2 ? its.size() : random() % 5);
        if (enters || i % 100 != 0) // some are not left
            rows += std::string("\tFunction") + (enters ? "Enter" : "Leave") + "\t28\t" + std::to_string(tick) +
                    "\t0\t" + std::to_string(thread + 1) + "\tInvalid\t0x" + std::to_string(its.back()) + '\n';
        if (!enters)
            its.pop_back();
    }
    make(rows);
    ASSERT_TRUE(m_index.open(m_directory.path("index"), "key"));
    const TrackAnswers slices(m_index, 1), whole(m_index, rows.size());
    for (unsigned i = 0; i < 10; ++i) {
        const std::uint64_t from = i == 0 ? 0 : random() % tick, to = i == 0 ? tick : random() % tick;
        TrackAnswers::Words words{{"from", std::to_string(std::min(from, to))},
                                  {"to", std::to_string(std::max(from, to))}};
        for (const char* question : {"table", "flame", "histogram"}) {
            for (const char* name : {"1", "2", "4"}) {
                words["name"] = name;
                const auto answer = slices.answer(question, words);
                ASSERT_TRUE(answer);
                EXPECT_GT(answer->size(), 10U);
                EXPECT_EQ(answer, whole.answer(question, words))
                    << question << ' ' << words["from"] << ' ' << words["to"];
            }
        }
    }
}

TEST_F(TrackIndexFile, AnswersNothingThatCannotBeUnderstood) {
    ASSERT_TRUE(opens(m_bytes));
    const TrackAnswers answers(m_index);
    const struct {
        const char* question;
        TrackAnswers::Words words;
    } cases[] = {{"", {}},
                 {"tiles", {{"from", "0"}}},
                 {"tile", {{"from", "0"}, {"to", "9"}, {"tracks", "0"}}},
                 {"tile", {{"from", "0"}, {"cell", "1"}, {"tracks", "0,,1"}}},
                 {"tile", {{"from", "0"}, {"cell", "1"}, {"tracks", "6"}}},
                 {"tile", {{"from", "0"}, {"cell", "1"}, {"tracks", "-1"}}},
                 {"tile", {{"from", "0"}, {"cell", "18446744073709551616"}, {"tracks", "0"}}},
                 {"table", {{"from", ""}}},
                 {"table", {{"from", "0x1"}}},
                 {"table", {{"from", "0"}, {"to", "1 "}}},
                 {"table", {{"from", "0"}, {"track", std::string("1\0", 2)}}},
                 {"histogram", {{"from", "0"}}},
                 {"marks", {{"from", "0"}}},
                 {"next", {{"from", "0"}, {"index", "one"}}},
                 {"item", {{"track", "0"}}},
                 {"item", {{"track", "4294967296"}, {"index", "0"}}}};
    for (const auto& its : cases)
        EXPECT_FALSE(answers.answer(its.question, its.words)) << its.question << ' ' << its.words.size();
    EXPECT_EQ(answers.answer("item", {{"track", "0"}, {"index", "-1"}}), "null\n");
}

} // namespace Quorvex::test
