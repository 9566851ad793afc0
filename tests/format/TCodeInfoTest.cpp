#include "quorvex/format/TCodeInfo.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/format/Packet.h"
#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

TEST(TypeCodes, AnswerForUsedPlannedAndReservedCodes) {
    constexpr char kManyIndices[] = "RelTick:1|RelIP:1|CntrId:4|Value:8|Idx:8:0-27";
    const struct {
        unsigned code;
        bool valid;
        const char* name;
        const char* description;
        const char* layout;
        std::pair<unsigned, unsigned> length;
    } rows[] = {
        {0x06, false, "TCode(0x06)", "reserved", "", {0, 0}},
        {0x20, false, "RelDefineAddrToken", "define data token", "RelTick:1|RelIP:1|DataAddr:8|Token:1", {11, 11}},
        {0x47, true, "RelCounterValueDimN", "counter value n>2 dimensions", kManyIndices, {14, 230}},
        {0x77, true, "Timestamp", "timestamp", "Timestamp:8|HWCtx:4{0-1}|Frequency:8{0-1}", {8, 20}},
        {0xC4, true, "RelSignal", "signal value", "RelTick:1|SignalValue:1-119|SignalMask:1-119", {3, 239}},
        {0xFE, false, "TCode(0xfe)", "reserved", "", {0, 0}},
        {0xFF, true, "Invalid", "invalid tcode value", "0xff:1:255", {255, 255}},
    };
    for (const auto& row : rows) {
        const auto code = tagTCode(row.code);
        EXPECT_EQ(CTCodeInfo::TCodeIsValid(code), row.valid) << row.name;
        EXPECT_STREQ(CTCodeInfo::TCodeToName(code), row.name);
        EXPECT_STREQ(CTCodeInfo::TCodeToDescription(code), row.description);
        EXPECT_STREQ(CTCodeInfo::TCodeToFormat(code), row.layout);
        EXPECT_EQ(CTCodeInfo::TCodeToLength(code), row.length) << row.name;
    }
    EXPECT_EQ(takeLog(), "");
}

TEST(TypeCodes, FillTheWholeByte) {
    unsigned valid = 0, planned = 0;
    for (unsigned code = 0; code < 256; ++code) {
        const std::string name = CTCodeInfo::TCodeToName(tagTCode(code));
        valid += CTCodeInfo::TCodeIsValid(tagTCode(code));
        planned += !CTCodeInfo::TCodeIsValid(tagTCode(code)) && !name.starts_with("TCode(");
        const auto [smallest, largest] = CTCodeInfo::TCodeToLength(tagTCode(code));
        EXPECT_LE(smallest, largest) << name;
        EXPECT_LE(largest, 255U) << name;
    }
    EXPECT_GE(valid, 94U) << "with Invalid; what is in use stays so";
    EXPECT_GE(valid + planned, 118U);
}

TEST(TypeCodes, AreDeniedBeyondAByte) {
    const auto code = tagTCode(256);
    EXPECT_FALSE(CTCodeInfo::TCodeIsValid(code));
    EXPECT_EQ(CTCodeInfo::TCodeToName(code), nullptr);
    EXPECT_EQ(CTCodeInfo::TCodeToDescription(code), nullptr);
    EXPECT_EQ(CTCodeInfo::TCodeToFormat(code), nullptr);
    EXPECT_EQ(CTCodeInfo::TCodeToLength(code), (std::pair{0U, 0U}));
    std::string expected;
    for (unsigned i = 0; i < 5; ++i)
        expected += "Error: tcode is out of range. Out of bound access to array denied\n";
    EXPECT_EQ(takeLog(), expected);
}

TEST(Layouts, ReportBracesThatAreNotClosed) {
    CMessageQueue::g_Instance->pop(1000);
    EXPECT_TRUE(Layout::parse("X", "A:1|[B:2").fields.empty());
    EXPECT_EQ(takeLog(), "Found malformed format string: Missing ']' closing brace.\nFormat string was \"A:1|[B:2\"\n");
    EXPECT_TRUE(Layout::parse("X", "A:1{0-1}|B:2{0-1").fields.empty());
    EXPECT_EQ(takeLog(),
              "Found malformed format string: Missing '}' closing brace.\nFormat string was \"A:1{0-1}|B:2{0-1\"\n");
    EXPECT_EQ(Layout::parse("X", "A:1|[B:2|C:0-3]|D:4").length(), (std::pair{5U, 10U})) << "an optional group";
    Layout::parse("X", "A:1");
    const auto trace = CMessageQueue::g_Instance->pop(10).back();
    EXPECT_EQ(trace->Level(), MessageLevelTrace);
    EXPECT_TRUE(trace->Message() == ATL::CComBSTR("Parsing format string of type X"));
}

TEST(Headers, StayAsTheyAreWhenAStreamThrows) {
    EXPECT_TRUE(CPacketHeader() == CPacketHeader(Sync, 0xFF));
    CPacketHeader read(Fill, 9);
    for (const char* cut : {"", "\x10"}) {
        std::istringstream throwing(cut);
        throwing.exceptions(std::ios::failbit);
        EXPECT_FALSE(read.read(throwing));
    }
    EXPECT_TRUE(read == CPacketHeader(Fill, 9));
}

TEST(TypeCodes, AreOpenToDerivedClasses) {
    struct Registry : CTCodeInfo {
        Registry() = default;
        Registry(const Registry& other) : CTCodeInfo(other) {}
    } registry;
    static_cast<CTCodeInfo&>(registry) = Registry(registry);
    static_assert(!std::is_constructible_v<CTCodeInfo> && !std::is_destructible_v<CTCodeInfo>);
    struct Header : CPacketHeader {
        using CPacketHeader::CPacketHeader, CPacketHeader::GetLength, CPacketHeader::SetLength;
    } header(Fill, 3);
    header.SetLength(7);
    EXPECT_EQ(header.GetLength(), 7);
    CPacket packet = static_cast<const CPacketHeader&>(header);
    EXPECT_TRUE(packet.Length() == 7 && packet.StreamSize() == 9 && header.StreamSize() == CPacket::Len());
}

} // namespace
} // namespace Quorvex::test
