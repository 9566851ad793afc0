#include "quorvex/format/Counter.h"
#include "quorvex/format/Data.h"
#include "quorvex/format/FrameConfig.h"
#include "quorvex/format/TraceStreamFormatter.h"
#include "quorvex/format/VarCounter.h"
#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <new>
#include <sstream>

namespace Quorvex::test {
namespace {

std::string wire(const CData& data) {
    char buffer[64];
    unsigned written = 0;
    EXPECT_TRUE(data.write(buffer, sizeof buffer, written));
    std::ostringstream out;
    EXPECT_TRUE(data.write(out));
    EXPECT_EQ(out.str(), std::string(buffer, written));
    return hex({buffer, written});
}

std::string memory(const CData& data) {
    return hex({reinterpret_cast<const char*>(data.data()), data.Length()});
}

TEST(Data, KeepsEveryWidthAndReversesThoseOnTheHeap) {
    for (unsigned length = 0; length <= 64; ++length) {
        std::string raw;
        for (unsigned i = 0; i < length; ++i)
            raw += static_cast<char>(i + 1);
        const ExactBlock block(raw);
        CData fromBuffer, fromStream;
        unsigned consumed = 99;
        ASSERT_TRUE(fromBuffer.read(block.data(), length, static_cast<std::uint8_t>(length), consumed));
        EXPECT_EQ(consumed, length);
        std::istringstream in(raw);
        ASSERT_TRUE(fromStream.read(in, static_cast<std::uint8_t>(length)));
        EXPECT_EQ(wire(fromBuffer), hex(raw));
        EXPECT_EQ(wire(fromStream), hex(raw));
        const bool inlined = length == 0 || length == 1 || length == 2 || length == 4 || length == 8;
        EXPECT_EQ(memory(fromBuffer), inlined ? hex(raw) : hex(std::string(raw.rbegin(), raw.rend())));

        // Copies go in memory order and are independent.
        CData copy(fromBuffer), assigned;
        assigned = copy;
        copy = std::uint8_t{7};
        const CData& self = assigned;
        assigned = self;
        EXPECT_EQ(wire(assigned), hex(raw));
        EXPECT_EQ(fromBuffer == fromStream, inlined) << "heap-held values are equal only to themselves";
        EXPECT_TRUE(fromBuffer == fromBuffer);
    }
}

TEST(Data, IsMadeFromNumbersAndBytes) {
    EXPECT_EQ(wire(CData(std::uint16_t{0x1234})), "34 12");
    EXPECT_EQ(wire(CData(std::uint64_t{0x060504030201}, 5)), "05 04 03 02 01");
    EXPECT_EQ(wire(CData(std::uint64_t{0x0807060504030201}, 10)), "00 00 08 07 06 05 04 03 02 01");
    EXPECT_EQ(wire(CData(std::uint64_t{0x0807060504030201}, 4)), "01 02 03 04");
    const std::uint8_t raw[] = {1, 2, 3};
    EXPECT_EQ(wire(CData(raw, 3)), "03 02 01");
    EXPECT_EQ(wire(CData(raw, 2)), "01 02");
    CData data(std::uint32_t{5});
    static_cast<std::uint32_t&>(data) = 6;
    EXPECT_EQ(wire(data), "06 00 00 00");
    EXPECT_FALSE(data == CData(std::uint16_t{6})) << "the width counts";
}

TEST(Data, RefusesMoreThan64Bytes) {
    const std::uint8_t raw[65] = {};
    for (const std::uint8_t* bytes : {raw, static_cast<const std::uint8_t*>(nullptr)})
        EXPECT_EQ(thrownBy([bytes] { CData(bytes, 65); }), "CData input length exceeds maximum value!");
    CData data(std::uint8_t{1});
    EXPECT_FALSE(data.assign(std::uint64_t{1}, 65));
    EXPECT_EQ(data.Length(), 0U);
    EXPECT_TRUE(data.assign(raw, 0));
    std::istringstream in(std::string(80, 'x'));
    EXPECT_FALSE(data.read(in, 65));
    EXPECT_EQ(in.tellg(), 64) << "the bytes are consumed all the same";
    unsigned consumed = 7;
    EXPECT_FALSE(data.read(reinterpret_cast<const char*>(raw), 65, 65, consumed));
    EXPECT_FALSE(data.read("ab", 2, 3, consumed));
    EXPECT_EQ(consumed, 7U);
    std::istringstream throwing("ab");
    throwing.exceptions(std::ios::failbit);
    EXPECT_FALSE(data.read(throwing, 3));
    EXPECT_EQ(data.Length(), 0U);
    data = std::uint8_t{1};
    throwing.exceptions(std::ios::goodbit);
    EXPECT_TRUE(throwing.fail() && data.read(throwing, 0)) << "nothing is read";
    EXPECT_EQ(data.Length(), 0U);
}

TEST(Data, GivesDerivedClassesItsStorage) {
    struct Storage : CData {
        using CData::CData, CData::clear, CData::ensure_size, CData::copy_in, CData::copy_out, CData::read_in,
            CData::write_out, CData::LenLimited;
    } data;
    const std::uint8_t raw[] = {1, 2, 3};
    std::uint8_t out[3] = {}, written = 9;
    EXPECT_TRUE(data.copy_in(raw, 3) && data.write_out(out, 3, written) && written == 3 && out[0] == 3);
    EXPECT_TRUE(data.read_in(raw, 3) && data.copy_out(out, 3, written) && out[0] == 3);
    EXPECT_TRUE(!data.copy_out(out, 2, written) && !data.write_out(nullptr, 3, written));
    EXPECT_TRUE(!data.ensure_size(65) && data.Length() == 3) << "nothing changes";
    EXPECT_TRUE(data.ensure_size(64) && data.Length() == 64);
    data.clear();
    EXPECT_EQ(data.Length(), 0U);
    EXPECT_TRUE(Storage::LenLimited(63) == 63 && Storage::LenLimited(1000) == 64);

    const CData value(raw, 3);
    CData same(value);
    std::uint8_t* const& kept = value;
    std::uint8_t*& buffer = same;
    EXPECT_TRUE(kept == value.data() && buffer == same.data() && buffer[2] == 3);
    const CData inlined(raw, 2);
    EXPECT_EQ(static_cast<const std::uint8_t*>(inlined), inlined.data());
}

// `unsigned long` and `unsigned long long` are both in use for numbers of eight bytes, and the one or the other is no
// integer of fixed width.
template <class T> void checkNumber() {
    const T value = 0x51;
    CData data(value);
    TVarCounter_t counter(value);
    EXPECT_TRUE(data.Length() == sizeof value && counter.Length() == sizeof value);
    const T& inData = std::as_const(data);
    const T& inCounter = std::as_const(counter);
    EXPECT_TRUE(inData == value && inCounter == value && counter == value);
    static_cast<T&>(data) = 0x52;
    static_cast<T&>(counter) = 0x52;
    EXPECT_TRUE(inData == 0x52 && counter != value);
    EXPECT_TRUE((data = value) == CData(value) && (counter = value) == TVarCounter_t(value));
    EXPECT_EQ(wire(CData(value, 3)), "00 00 51");
    EXPECT_TRUE(data.assign(value, 5) && wire(data) == "00 00 00 00 51");
    EXPECT_EQ(TVarCounter_t(value, 3).data()[0], 0x51) << "a buffer, though made from a number";
    if constexpr (sizeof value == 8) {
        EXPECT_TRUE(TCounter_t(value).u64 == value && TCounterIdx_t(value).u64 == value);
        EXPECT_TRUE(TVarCounter_t(value, 2) == TVarCounter_t(std::uint16_t{0x51}));
    }
}

TEST(Numbers, OfEveryUnsignedTypeAreTakenAtTheirSize) {
    checkNumber<std::uint8_t>();
    checkNumber<std::uint16_t>();
    checkNumber<unsigned>();
    checkNumber<unsigned long>();
    checkNumber<unsigned long long>();
}

template <class Word> void checkZeroed() {
    alignas(Word) unsigned char memory[sizeof(Word)];
    static_assert(sizeof(Word) == 8);
    // What is seen through it is what is there, not what the compiler may think of an object that is no more.
    volatile unsigned char* const seen = memory;
    std::fill_n(seen, sizeof memory, static_cast<unsigned char>(0xAA));
    (new (memory) Word(std::uint64_t{0x0102030405060708}))->~Word();
    EXPECT_EQ(std::count(seen, seen + sizeof memory, 0), 8);
}

TEST(Counter, IsZeroInMemoryWhenItsLifeIsOver) {
    checkZeroed<TCounter_t>();
    checkZeroed<TCounterIdx_t>();
    EXPECT_EQ(TCounter_t(1.0).u64, 0x3FF0000000000000U);
    const TCounterIdx_t index(2.0), copy(index);
    EXPECT_EQ(copy.dbl, 2.0);
}

TEST(FrameConfig, KeepsModeAndFlagApart) {
    SFrameConfig config(TraceExpansion(7));
    EXPECT_TRUE(config.getExpansion() == MixExpanded && !config.getExceptionFrames() && SFrameConfig::Len() == 4);
    config.setExceptionFrames(true);
    config.setExpansion(Expanded);
    EXPECT_TRUE(config.getExpansion() == Expanded && config.getExceptionFrames());
    config.clear();
    EXPECT_TRUE(config == SFrameConfig());
}

TEST(Data, WritesNothingWhereItDoesNotFitAndLeavesTheCountOfAnEmptyValueAlone) {
    unsigned written = 77;
    EXPECT_TRUE(CData().write(nullptr, 0, written));
    EXPECT_EQ(written, 77U);
    const CData three(std::uint64_t{1}, 3);
    char buffer[3];
    EXPECT_FALSE(three.write(buffer, 2, written));
    EXPECT_FALSE(three.write(nullptr, 3, written));
    EXPECT_EQ(written, 77U);
    std::uint64_t value = 5;
    std::uint8_t length = 5;
    EXPECT_FALSE(three.CopyTo(value, length));
    EXPECT_EQ(value, 5U);
    EXPECT_TRUE(CData(std::uint16_t{0x1234}).CopyTo(value, length));
    EXPECT_EQ(value, 0x1234U);
    EXPECT_EQ(length, 2U);
}

TEST(VarCounter, ComparesByWidthAndBits) {
    EXPECT_TRUE(TVarCounter_t(1.0) == 1.0);
    EXPECT_TRUE(TVarCounter_t(0.0) != -0.0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(TVarCounter_t(nan) == nan);
    EXPECT_FALSE(TVarCounter_t(std::uint32_t{1}) == std::uint64_t{1});
    EXPECT_TRUE(TVarCounter_t(std::uint32_t{1}) != std::uint16_t{1});
    EXPECT_TRUE(TVarCounter_t(std::uint8_t{200}) == std::uint8_t{200});
    EXPECT_TRUE(TVarCounter_t().empty());
    EXPECT_TRUE(TVarCounter_t() == TVarCounter_t());
    EXPECT_FALSE(TVarCounter_t() == TVarCounter_t(std::uint8_t{0}));
}

TEST(VarCounter, OwnsBuffersOfOddWidths) {
    const std::uint8_t raw[] = {1, 2, 3, 4, 5};
    TVarCounter_t value(raw, 5);
    const TVarCounter_t copy(value);
    EXPECT_TRUE(copy == value) << "unlike data, compared by their bytes";
    const TVarCounter_t& self = value;
    value = self;
    value = std::uint16_t{0x201};
    EXPECT_EQ(hex({reinterpret_cast<const char*>(copy.data()), copy.Length()}), "01 02 03 04 05");
    EXPECT_FALSE(copy == TVarCounter_t(std::uint64_t{0x0604030201}, 5));
    EXPECT_TRUE(TVarCounter_t(std::uint64_t{0x060504030201}, 5) == copy);
    EXPECT_TRUE(TVarCounter_t(std::uint64_t{0x201}, 2) == value);
    value.assign(nullptr, 5);
    EXPECT_TRUE(value.empty());
}

TEST(VarCounter, HoldsAPointerForBytesOfAnInlineWidthAndDoesNotFreeIt) {
    const std::uint8_t raw[] = {1, 2, 3, 4, 5, 6, 7, 8};
    TVarCounter_t value(raw, 8);
    static_assert(sizeof(void*) <= 8);
    std::uint8_t* buffer = nullptr;
    std::memcpy(&buffer, value.data(), sizeof buffer);
    EXPECT_EQ(buffer[7], 8);
    value.clear();
    delete[] buffer; // would be a second time if clear() had freed it
}

TEST(StreamFormatter, MovesAllOrNothing) {
    unsigned char raw[3] = {};
    std::istringstream in("xyzz");
    EXPECT_TRUE(TraceStreamFormatter::read(in, 3, raw));
    EXPECT_FALSE(TraceStreamFormatter::read(in, 1, nullptr) || TraceStreamFormatter::read(in, 3, raw));
    EXPECT_EQ(TraceStreamFormatter::read("xyz", 2, 3, raw), 0U);
    EXPECT_EQ(TraceStreamFormatter::read("xyz", 3, 3, raw), 3U);
    char out[3] = {};
    EXPECT_EQ(TraceStreamFormatter::write(out, 2, 3, raw), 0U);
    EXPECT_EQ(TraceStreamFormatter::write(out, 3, 3, raw), 3U);
    std::ostringstream stream;
    EXPECT_TRUE(TraceStreamFormatter::write(stream, 3, raw) && !TraceStreamFormatter::write(stream, 1, nullptr));
    EXPECT_EQ(stream.str() + std::string(out, 3), "xyzxyz");
}

} // namespace
} // namespace Quorvex::test
