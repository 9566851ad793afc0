#include "quorvex/stream/PageFile.h"

#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSourceBufferFile.h"
#include "quorvex/stream/TraceSourceBufferMapped.h"
#include "tests/support/Doubles.h"
#include "tests/support/System.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>

namespace Quorvex::test {
namespace {

/// A trace of which no two places look alike.
const std::string kTrace = [] {
    std::mt19937 random(3);
    std::string bytes(kPageSize + 5000, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}();

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string readAll(const std::string& path) {
    CTraceSourceBufferFile file;
    EXPECT_TRUE(file.open(path));
    const std::string bytes = readFrom(file, static_cast<unsigned>(file.size()) + 10);
    EXPECT_EQ(file.size(), bytes == "!" ? 0 : bytes.size());
    EXPECT_TRUE(file.eof());
    return bytes;
}

/// What a program leaves whose page begins at `base`, of the trace and of the page.
void leave(const std::string& path, const std::string& inFile, unsigned base, unsigned written, unsigned fill) {
    writeFile(path, inFile);
    detail::PageFile page;
    ASSERT_TRUE(page.create(path));
    kTrace.copy(page.page(), fill);
    page.identify();
    kTrace.copy(page.page(), fill, base);
    page.restart(base, written, fill);
}

TEST(PageFile, IsReadAsTheEndOfItsTraceOnly) {
    std::string other = kTrace;
    other[20] ^= 1;
    const auto begin = [](std::size_t size) { return kTrace.substr(0, size); };
    // What is in the trace's file; where the page begins, what is written of it and how far it is filled; and the bytes
    // of the trace that are read, 0 for those of the file.
    const std::tuple<std::string, std::string, unsigned, unsigned, unsigned, std::size_t> cases[] = {
        {"nothing is in the trace's file", "", 0, 0, 3000, 3000},
        {"part of the page has been flushed", begin(1000), 0, 1000, 1001, 1001},
        {"a page has been written", begin(kPageSize), kPageSize, 0, 5000, kPageSize + 5000},
        {"both", begin(kPageSize + 100), kPageSize, 100, 2500, kPageSize + 2500},
        {"killed as the page was written", begin(kPageSize + 200), kPageSize, 100, 2500, kPageSize + 2500},
        {"killed behind that", begin(2500), 0, 100, 2500, 2500},
        {"all has been flushed", begin(2500), 0, 2500, 2500, 0},
        {"the trace's file has more", begin(2501), 0, 100, 2500, 0},
        {"the trace's file has been cut", begin(kPageSize - 1), kPageSize, 0, 5000, 0},
        {"another trace of the same name", other.substr(0, kPageSize), kPageSize, 0, 5000, 0},
        {"something has been appended", begin(100) + "more", 0, 100, 2500, 0},
    };
    for (const auto& [what, inFile, base, written, fill, whole] : cases) {
        const TemporaryDirectory directory;
        const std::string path = directory.path("trace");
        leave(path, inFile, base, written, fill);
        EXPECT_TRUE(readAll(path) == (whole ? begin(whole) : inFile)) << what;
    }
}

TEST(PageFile, KeepsItsTraceFromBeingMapped) {
    const TemporaryDirectory directory;
    leave(directory.path("trace"), kTrace.substr(0, 100), 0, 0, 3000);
    CTraceSourceBufferMapped mapped;
    EXPECT_FALSE(mapped.open(directory.path("trace")));
    EXPECT_EQ(mapped.error(), EBUSY);
}

TEST(PageFile, IsLeftAloneWhenItIsDamaged) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("trace");
    leave(path, "", 0, 0, 3000);
    const std::string whole = directory.content("trace.page");
    const auto expectNothing = [&](const std::string& content) {
        writeFile(path + ".page", content);
        EXPECT_EQ(readAll(path), "!");
    };
    for (const std::size_t size : {0U, 1U, 30U, 4096U, 4096U + 2999U})
        expectNothing(whole.substr(0, size));
    for (const std::size_t at : {0U, 7U, 8U, 15U, 27U}) { // the mark, the page's position, and how far it is filled
        std::string damaged = whole;
        damaged[at] ^= '\x40';
        expectNothing(damaged);
    }
    detail::removePageFile(path);
    EXPECT_FALSE(std::filesystem::exists(path + ".page"));
    EXPECT_EQ(readAll(path), "!");
}

TEST(PageFile, HasThePacketsBesideThePageBehindIt) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("trace");
    writeFile(path, "");
    detail::PageFile page;
    ASSERT_TRUE(page.create(path));
    kTrace.copy(page.page(), 3000);
    page.identify();
    page.restart(0, 0, 3000);
    std::uint64_t tick = 0;
    const auto add = [&page, &tick](const std::string& packet) {
        const std::uint64_t before = tick;
        char* room = page.reserve(static_cast<unsigned>(packet.size()), tick);
        EXPECT_GE(tick, before);
        packet.copy(room, packet.size());
        return room;
    };
    // The first one is interrupted by a second, that by a third which is given up, and then a fourth begins.
    char* const first = add("first");
    page.finish(add("second"), true);
    page.finish(add("third"), false);
    add("fourth");
    EXPECT_EQ(readAll(path), kTrace.substr(0, 3000) + "second");
    page.finish(first, true);
    EXPECT_EQ(readAll(path), kTrace.substr(0, 3000) + "firstsecond");

    // Killed as the page was begun anew, before and behind the moment when its new place is told.
    writeFile(path, kTrace.substr(0, kPageSize));
    for (const auto& [base, written] : {std::pair{0U, 0U}, {0U, 200U}, {kPageSize, 0U}}) {
        page.restart(base, written, 0);
        EXPECT_TRUE(readAll(path) == kTrace.substr(0, kPageSize) + "firstsecond") << base << " " << written;
    }
    writeFile(path, "");
    page.restart(0, 0, 3000);

    unsigned size = 0;
    EXPECT_EQ(std::string(page.oldest(size), 5), "first");
    std::memcpy(page.page() + 3000, page.oldest(size), size);
    page.moved(3005);
    EXPECT_EQ(readAll(path), kTrace.substr(0, 3000) + "firstsecond");
    EXPECT_EQ(std::string(page.oldest(size), 6), "second");
    page.moved(3005);
    EXPECT_EQ(page.oldest(size), nullptr) << "those that are not whole are forgotten";

    // As many as there is room for, then again from the start.
    for (unsigned round = 0; round < 2; ++round) {
        unsigned taken = 0;
        while (char* room = page.reserve(101, tick)) {
            page.finish(room, true);
            ++taken;
        }
        EXPECT_EQ(taken, 4048U / 104);
        for (; page.oldest(size); --taken)
            page.moved(3005);
        EXPECT_EQ(taken, 0U);
    }
    EXPECT_EQ(page.reserve(5000, tick), nullptr);
    EXPECT_EQ(page.reserve(~0U, tick), nullptr);
}

// The handler comes behind each single instruction of the one that it interrupts.
TEST(PageFile, KeepsWhatHandlersPutBesideThePageThatInterruptEachOther) {
    static detail::PageFile page;
    struct Put {
        std::string packet;
        std::uint64_t tick;
    };
    static std::vector<Put> put;
    static const auto add = [](unsigned size, char letter) {
        std::uint64_t tick = 0;
        char* room = page.reserve(size, tick);
        std::memset(room, letter, size);
        page.finish(room, true);
        put.push_back({std::string(size, letter), tick});
    };
    put.reserve(10);
    unsigned step = 1;
    for (bool came = true; came; ++step) {
        ASSERT_TRUE(page.create());
        put.clear();
        std::uint64_t outerTick = 0;
        char* outer = nullptr;
        if (!interruptAt(
                step, [&] { outer = page.reserve(10, outerTick); }, [] { add(30, 'B'); }, came))
            GTEST_SKIP() << "no single steps here";
        std::memset(outer, 'A', 10);
        page.finish(outer, true);
        put.push_back({std::string(10, 'A'), outerTick});
        add(20, 'C');
        std::ranges::sort(put, {}, &Put::tick);
        unsigned size = 0;
        for (const auto& [packet, tick] : put) {
            const char* found = page.oldest(size);
            ASSERT_TRUE(found && std::string(found, size) == packet) << "step " << step << ": not " << packet;
            page.moved(0);
        }
        ASSERT_FALSE(page.oldest(size)) << "step " << step;
    }
    EXPECT_GT(step, 20U);
}

TEST(PageFile, IsReadFromAnyPlace) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("trace");
    leave(path, kTrace.substr(0, kPageSize), kPageSize, 0, 5000);
    CTraceSourceBufferFile file;
    ASSERT_TRUE(file.open(path));
    std::mt19937 random(4);
    for (unsigned i = 0; i < 200; ++i) {
        const std::size_t position = i % 2 ? random() % kTrace.size() : kPageSize - 4000 + random() % 8000;
        const auto count = static_cast<unsigned>(random() % 9000);
        file.clear();
        ASSERT_TRUE(readFrom(file, count, position) == kTrace.substr(position, count)) << position;
        ASSERT_EQ(file.size(), kTrace.size());
    }
    ASSERT_TRUE(file.open((path + ".page").c_str())) << "goes back to a plain file";
    EXPECT_EQ(file.size(), std::filesystem::file_size(path + ".page"));
}

TEST(PageFile, TellsWhyItCannotBeMade) {
    const TemporaryDirectory directory;
    detail::PageFile page;
    EXPECT_FALSE(page.create(directory.path("no/trace")));
    EXPECT_EQ(page.error(), ENOENT);
    EXPECT_FALSE(page.is_open());
    EXPECT_TRUE(page.create(directory.path("trace")));
    page.remove();
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
    // What is there already, and what a link leads to, is left alone.
    writeFile(directory.path("file.page"), "whose");
    std::error_code noLinks;
    std::filesystem::create_symlink("file.page", directory.path("link.page"), noLinks);
    for (const char* name : {"file", "link"}) {
        if (noLinks && name == std::string("link"))
            continue;
        EXPECT_FALSE(page.create(directory.path(name)));
        EXPECT_EQ(page.error(), EEXIST);
    }
    EXPECT_EQ(directory.content("file.page"), "whose");
}

} // namespace
} // namespace Quorvex::test
