#include "quorvex/export/VCDValue.h"

#include "quorvex/export/VCDIdentifier.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <sstream>

namespace Quorvex::test {
namespace {

/// The text by the stream and by memory, which has just that much room; one character less holds nothing.
template <class WriteStream, class WriteBuffer> std::string text(WriteStream&& toStream, WriteBuffer&& toBuffer) {
    std::ostringstream out;
    const bool written = toStream(out);
    const std::string expected = out.str();
    const auto size = static_cast<unsigned>(expected.size());
    EXPECT_EQ(written, size != 0);
    EXPECT_EQ(toBuffer(nullptr, size), 0U);
    if (size == 0)
        return {};
    const std::unique_ptr<char[]> block(new char[size]);
    const std::unique_ptr<char[]> narrow(new char[size - 1]());
    EXPECT_EQ(toBuffer(narrow.get(), size - 1), 0U);
    EXPECT_EQ(std::string(narrow.get(), size - 1), std::string(size - 1, '\0'));
    EXPECT_EQ(toBuffer(block.get(), size), size);
    EXPECT_EQ(std::string(block.get(), size), expected);
    out.setstate(std::ios::failbit);
    EXPECT_FALSE(toStream(out));
    return expected;
}

std::string text(const CVCDValue& value) {
    return text([&](std::ostream& out) { return value.write(out); },
                [&](char* buf, unsigned size) { return value.write(buf, size); });
}

std::string code(std::uint32_t id) {
    return text([&](std::ostream& out) { return CVCDIdentifier::write(out, id); },
                [&](char* buf, unsigned size) { return CVCDIdentifier::write(buf, size, id); });
}

TEST(VCDIdentifier, WritesBase95FromTheHighestDigit) {
    EXPECT_EQ(code(0), "!");
    EXPECT_EQ(code(94), "\x7f");
    EXPECT_EQ(code(95), "\"!");
    EXPECT_EQ(code(9024), "\x7f\x7f");
    EXPECT_EQ(code(9025), "\"!!");
    EXPECT_EQ(code(0xFFFFFFFF), "UfJ_&");
}

TEST(VCDIdentifier, EndsAtTheInvalidNumber) {
    CVCDIdentifier ids;
    EXPECT_EQ(ids.GetNextId(), 0U);
    EXPECT_EQ(ids.GetNextId(), 1U);
    ids = CVCDIdentifier(0xFFFFFFFE);
    EXPECT_TRUE(ids.NextIDAvailable());
    EXPECT_TRUE(CVCDIdentifier::IsValid(ids.GetNextId()));
    for (unsigned i = 0; i < 2; ++i) {
        EXPECT_FALSE(ids.NextIDAvailable());
        EXPECT_FALSE(CVCDIdentifier::IsValid(ids.GetNextId()));
    }
    ids.reset();
    EXPECT_EQ(ids.GetNextId(), 0U);
}

TEST(VCDValue, WritesStatesFromTheLastToTheFirst) {
    const tagVCDValueData states[] = {VCDOne, VCDZero, VCDUnknown, VCDHighImpedance, tagVCDValueData('?')};
    const unsigned char raw[] = {0x35, 0xFE};
    const CSignalMask mask("1011"), validity("110");
    const struct {
        CVCDVectorValue value;
        std::string text;
    } rows[] = {
        {{states, 3}, "BX01 "},
        {{states, 5}, "BZZX01 "},
        {{states, 0}, ""},
        {{static_cast<const tagVCDValueData*>(nullptr), 5}, "BZZZZZ "},
        {{raw, 9}, "B000110101 "},
        {{raw, 0}, ""},
        {{static_cast<const unsigned char*>(nullptr), 2}, "BZZ "},
        {CVCDVectorValue(mask), "B1101 "},
        {{mask, validity}, "BXX01 "},
        {{validity, mask}, "B0X1 "},
        {{CSignalMask(), mask}, ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(text(row.value), row.text);
        for (unsigned i = 0; i < row.value.getSize(); ++i)
            EXPECT_EQ(row.value[i], row.text[row.value.getSize() - i]) << row.text;
        EXPECT_EQ(row.value.getData(row.value.getSize()), VCDHighImpedance);
    }
    for (const auto& [count, bytes] : {std::pair{0U, 0U}, {1U, 1U}, {4U, 1U}, {5U, 2U}, {0xFFFFFFFFU, 0x40000000U}})
        EXPECT_EQ(CVCDVectorValue::LenToByte(count), bytes);
    char room[8];
    const CVCDVectorValue boundless(static_cast<const unsigned char*>(nullptr), 0xFFFFFFFF);
    EXPECT_EQ(CVCDValue(boundless).write(room, sizeof room), 0U);
}

TEST(VCDValue, IsCopiedAndAssigned) {
    CVCDVectorValue vector(CSignalMask("01"));
    const CVCDValue before = vector;
    vector = CSignalMask("100");
    EXPECT_EQ(text(vector), "B001 ");
    vector.assign(CSignalMask("11111"), CSignalMask("01111"));
    EXPECT_EQ(text(vector), "B1111X ");
    const CVCDVectorValue& same = vector;
    vector = same;
    EXPECT_EQ(text(vector), "B1111X ");

    CVCDValue value;
    const auto typeAndText = [&value] { return std::pair(value.GetType(), text(value)); };
    EXPECT_EQ(typeAndText(), std::pair(VCDNone, std::string()));
    value = before;
    EXPECT_EQ(typeAndText(), std::pair(VCDVector, std::string("B10 "))) << "a copy of its own";
    value = CVCDRealValue(2);
    EXPECT_EQ(typeAndText(), std::pair(VCDReal, std::string("R2 ")));
    value = CVCDSingleValue(true);
    EXPECT_EQ(typeAndText(), std::pair(VCDSingle, std::string("1")));
    EXPECT_EQ(text(CVCDSingleValue(false)) + text(CVCDSingleValue(VCDUnknown)), "0X");
}

TEST(VCDValue, WritesNumbersAsPrintfDoes) {
    using Limits = std::numeric_limits<double>;
    for (const double number :
         {0.5, 0.0, -0.0, 1.0 / 3, -2.0 / 3, 1e15, 1e16, 1234567890123456789.0, 1e-4, 1e-5, 1e300, -Limits::max(),
          -Limits::min(), Limits::denorm_min(), Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN()}) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "R%.16g ", number);
        EXPECT_EQ(text(CVCDRealValue(number)), expected);
    }
}

TEST(BufferHelper, TakesPiecesWholeAndLeavesNoGap) {
    char buffer[6];
    CBufferHelper<char> out(buffer, 5);
    buffer[5] = '!';
    EXPECT_TRUE(out.append('a'));
    EXPECT_TRUE(out.append("bc"));
    EXPECT_EQ(out.remain(), 2U);
    EXPECT_FALSE(out.append("def"));
    EXPECT_FALSE(out.append('d'));
    EXPECT_TRUE(out.overflowed());
    EXPECT_EQ(out.text(), "abc");
    out.clear();
    EXPECT_TRUE(out.append("vwxyz"));
    EXPECT_EQ(out.remain(), 0U);
    EXPECT_TRUE(out.append(""));
    EXPECT_FALSE(out.overflowed());
    EXPECT_EQ(out.claim(1), nullptr);
    EXPECT_EQ(out.text(), "vwxyz");
    EXPECT_EQ(buffer[5], '!');
}

} // namespace
} // namespace Quorvex::test
