#include "quorvex/stream/FileKind.h"

#include "quorvex/stream/PageFile.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "tests/support/Doubles.h"
#include "tests/support/Effort.h"
#include "tests/support/ShortMemory.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <numeric>

namespace Quorvex::test {
namespace {

/// What a program records of itself: two functions that call each other, with time passing.
std::string recorded(unsigned calls) {
    MemorySink sink;
    CTraceWriterPaged writer(sink);
    CTraceEnabled enabled;
    CTimestamp timestamp(0x123456789, 3, 1'000'000'000);
    CFunctionDefine define(CCoreContext(0x123456789, 3, 77, kUnknown64), 5, "main");
    for (CPacket* packet : std::initializer_list<CPacket*>{&enabled, &timestamp, &define})
        EXPECT_TRUE(writer.put(packet));
    for (unsigned call = 0; call < calls; ++call) {
        const CCoreContext context(0x123456789 + 40 * call, 3, 77, 0x55550000 + call % 100);
        CSync sync(context);
        CFunctionEnter enter(context, 5 + call % 3);
        CFunctionLeave leave(context, 5 + call % 3);
        EXPECT_TRUE((call % 1000 != 0 || writer.put(&sync)) && writer.put(&enter) && writer.put(&leave));
    }
    writer.flush();
    return sink.bytes;
}

std::string randomBytes(std::size_t size, unsigned seed) {
    RandomPackets random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random.below(256));
    return bytes;
}

std::string pageOf(const std::string& file, std::size_t page = 0) {
    return file.substr(page * kPageSize, kPageSize);
}

std::string repeated(const std::string& text, std::size_t size = 100'000) {
    std::string all;
    while (all.size() < size)
        all += text;
    return all;
}

TEST(FileKind, TellsTracesHoweverTheyAreDamaged) {
    const std::string trace = recorded(20'000);
    ASSERT_GT(trace.size(), 4 * kPageSize);
    std::string mixed;
    for (RandomPackets random(6); mixed.size() < kPageSize;)
        mixed += random.wire();
    takeLog();
    // What lack of memory has left open is asked again. Of a kind of any length, some have not been asked yet, unless
    // tests of random bytes came before.
    bool isShort = false;
    for (unsigned length = 255; !isShort && length > 0; --length) {
        const std::string packet = fillOf(length + 2);
        const auto look = [&packet] { EXPECT_TRUE(looksLikeTrace(packet)); };
        const ShortMemory shortage(0);
        const std::string failure = thrownBy(look);
        isShort = shortage.came();
        EXPECT_EQ(failure, isShort ? "There is not enough memory available." : "");
        look();
    }
    for (const std::string& whole : {pageOf(trace), pageOf(trace, 2), mixed, recorded(3)}) {
        for (const std::size_t size : {0, 2, 3, 17, 18, 20, 59, 100, 4096, 262143})
            EXPECT_TRUE(looksLikeTrace(whole.substr(0, size))) << size;
        EXPECT_EQ(kindOfFile(whole), FileKind::Trace);
    }
    for (const std::string& whole : {pageOf(trace), mixed}) {
        for (const std::size_t size : {1U, 1000U, kPageSize / 2}) {
            const std::string noise = randomBytes(size, 7);
            for (const std::size_t at : {std::size_t{0}, std::size_t{5000}, whole.size() - size}) {
                std::string damaged = whole;
                damaged.replace(at, size, noise);
                EXPECT_TRUE(looksLikeTrace(damaged)) << size << " bytes at " << at;
            }
        }
        for (const std::size_t start : {1U, 2U, 10U, 33U, 100'000U})
            EXPECT_TRUE(looksLikeTrace(whole.substr(start))) << "from " << start;
    }
    // Without its first page it is told by the others.
    const std::string destroyed = std::string(kPageSize, '\0') + trace.substr(kPageSize);
    EXPECT_EQ(kindOfFile(pageOf(destroyed)), FileKind::Unknown);
    EXPECT_TRUE(looksLikeTrace(pageOf(destroyed, 1)));
    // What begins as a table could, or with a definition that counts its text.
    EXPECT_EQ(kindOfFile(bytes("ef bb bf 7a 00") + pageOf(trace)), FileKind::Trace);
    EXPECT_EQ(kindOfFile("\t" + trace.substr(0, 1000)), FileKind::Trace);
    EXPECT_EQ(kindOfFile(bytes("40 0a 01 02 05000000 01 7e 01 61")), FileKind::Trace);
}

TEST(FileKind, TakesNothingElseForATrace) {
    const TemporaryDirectory directory;
    detail::PageFile page;
    ASSERT_TRUE(page.create(directory.path("trace.qvx")));
    page.close();
    std::string everyByte(256, '\0');
    std::iota(everyByte.begin(), everyByte.end(), '\0');
    const std::pair<std::string, FileKind> files[] = {
        {"", FileKind::Trace},
        {directory.content("trace.qvx.page"), FileKind::PageFile},
        {"QVXPAGE", FileKind::Unknown},
        {"\tSync \t24 \t1 \t2 \t3 \t4 \n", FileKind::Table},
        {"\xef\xbb\xbf\n\tEndOfTrace \t0 \n", FileKind::Table},
        {"x", FileKind::Unknown},
        {"one line", FileKind::Unknown},
        {"#!/bin/sh\nexit 0\n", FileKind::Unknown},
        {"~\n0123456789", FileKind::Trace}, // a text alone, in one packet
        {"~\n01234567890", FileKind::Unknown},
        {repeated("# a text; {\"json\": [2, 3]}, ~/S 2\n"), FileKind::Unknown},
        {repeated("}}}"), FileKind::Unknown},
        {repeated("\x1b[1mbold\x1b[0m\r\n"), FileKind::Unknown},
        {repeated({"t\0e\0x\0t\0 \0{\0}\0|\0\n\0", 18}), FileKind::Unknown},
        {repeated({"\0t\0e\0x\0t\0 \0{\0}\0|\0\n", 18}), FileKind::Unknown},
        {repeated(everyByte), FileKind::Unknown},
        {repeated("\xff"), FileKind::Unknown},
        {std::string(1, '\0'), FileKind::Unknown},
        {repeated(std::string(1, '\0')), FileKind::Unknown},
        {bytes("89 50 4e 47 0d 0a 1a 0a 00 00 00 0d 49 48 44 52") + randomBytes(50'000, 1), FileKind::Unknown},
        {bytes("50 4b 03 04 14 00 00 00 08 00") + randomBytes(300, 2), FileKind::Unknown},
        {bytes("1f 8b 08 00 00 00 00 00 00 03") + randomBytes(kPageSize, 3), FileKind::Unknown},
        {bytes("40 0a 01 02 05000000 01 7e 02 61"), FileKind::Unknown},
        {bytes("00 03 01 02 03"), FileKind::Unknown},
    };
    for (const auto& [file, kind] : files)
        EXPECT_EQ(kindOfFile(file), kind) << hex(file.substr(0, 40));
    for (unsigned seed = 0; seed < 300; ++seed)
        EXPECT_FALSE(looksLikeTrace(randomBytes(1000, seed))) << seed;

    // A program, with its tables and texts.
    const std::string program = contentOf(QUORVEX_RECORDER);
    ASSERT_GT(program.size(), kPageSize);
    for (std::size_t at = 0; at < program.size() / kPageSize; at += effort(1, 7))
        EXPECT_EQ(kindOfFile(pageOf(program, at)), FileKind::Unknown) << at;
}

} // namespace
} // namespace Quorvex::test
