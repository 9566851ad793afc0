#include "quorvex/packets/SignalMask.h"

#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>

namespace Quorvex::test {
namespace {

std::string text(const CSignalMask& mask) {
    std::ostringstream out;
    EXPECT_TRUE(mask.print(out));
    return out.str();
}

/// Bits kept one by one, as text: what every operation of a mask must agree with.
using Model = std::string;

CSignalMask mask(const Model& model) {
    CSignalMask result;
    EXPECT_TRUE(result.assign(model));
    return result;
}

// Random operations on masks of all sizes, beside the same ones bit by bit.
TEST(SignalMask, AgreesWithBitsTakenOneByOne) {
    std::mt19937 random(99);
    const auto below = [&random](unsigned limit) { return limit == 0 ? 0U : static_cast<unsigned>(random() % limit); };
    const auto bits = [&](unsigned count) {
        Model model(count, '0');
        for (char& bit : model)
            bit = "01"[below(2)];
        return model;
    };
    const auto flipped = [](char bit) { return bit == '0' ? '1' : '0'; };
    for (unsigned round = 0; round < 6000; ++round) {
        const unsigned size = below(8) == 0 ? below(953) : below(200);
        const Model a = bits(size), b = bits(size);
        const CSignalMask x = mask(a);
        const CSignalMask y = mask(b);
        const unsigned from = below(size + 1);
        const unsigned count = below(size - from + 1);
        Model expected = a;
        CSignalMask result = x;
        switch (round % 12) {
        case 0: {
            std::string raw(count / 8 + 1, '\0');
            for (char& byte : raw)
                byte = static_cast<char>(random());
            result.set(from, count, reinterpret_cast<const unsigned char*>(raw.data()));
            for (unsigned i = 0; i < count; ++i)
                expected[from + i] = "01"[raw[i / 8] >> i % 8 & 1];
            break;
        }
        case 1:
            count == 1 ? result.reset(from) : result.reset(from, count);
            expected.replace(from, count, count, '0');
            break;
        case 2:
            result.flip(from, count);
            std::transform(a.begin() + from, a.begin() + from + count, expected.begin() + from, flipped);
            break;
        case 3:
            result = ~x;
            std::transform(a.begin(), a.end(), expected.begin(), flipped);
            break;
        case 4:
        case 5:
        case 6:
            result = round % 12 == 4 ? x & y : round % 12 == 5 ? x | y : x ^ y;
            for (unsigned i = 0; i < size; ++i)
                expected[i] = round % 12 == 4   ? std::min(a[i], b[i])
                              : round % 12 == 5 ? std::max(a[i], b[i])
                                                : "01"[a[i] != b[i]];
            break;
        case 7: {
            const Model tail = bits(below(953 - size));
            result = x + mask(tail);
            expected += tail;
            break;
        }
        case 8:
            result = x.submask(from, count);
            expected = a.substr(from, count);
            break;
        case 9:
            result = x.submask(y);
            expected.clear();
            for (unsigned i = 0; i < size; ++i) {
                if (b[i] == '1')
                    expected += a[i];
            }
            break;
        case 10: {
            const unsigned other = below(953);
            EXPECT_TRUE(result.resize(other));
            expected.resize(other, '0');
            break;
        }
        default:
            if (size > 0) {
                const unsigned bit = below(size);
                result[bit] = !result[bit];
                expected[bit] = flipped(expected[bit]);
            }
        }
        ASSERT_EQ(text(result), expected) << round % 12;
        ASSERT_EQ(result.count(), static_cast<unsigned>(std::count(expected.begin(), expected.end(), '1')));
        ASSERT_EQ(result.any(), result.count() > 0);
        ASSERT_TRUE(result == mask(expected)) << "no stray bit beyond the size";
        // As numbers, the highest bit decides.
        const bool less = size > 0 && std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
        ASSERT_EQ(x < y, less);
        ASSERT_EQ(x <= y, less || a == b);
        ASSERT_EQ(y > x, less);
    }
}

TEST(SignalMask, HoldsUpTo952Bits) {
    CSignalMask largest(952);
    EXPECT_EQ(largest.size(), 119U);
    EXPECT_TRUE(largest.none());
    EXPECT_EQ(largest.set().count(), 952U);
    EXPECT_TRUE(CSignalMask(0).empty() && CSignalMask(0U).empty() && CSignalMask(0ULL).empty());
    EXPECT_TRUE(CSignalMask(std::uint8_t{9}).bits() == 9 && CSignalMask(9L).bits() == 9);
    EXPECT_TRUE(CSignalMask().empty());
    const std::string tooMany = "CSignalMask: Requested allocation of more than maximal allowed signal bits.";
    EXPECT_EQ(thrownBy([] { CSignalMask(953); }), tooMany);
    EXPECT_EQ(thrownBy([] { CSignalMask(0x100000001ULL); }), tooMany) << "cut to 32 bits it would be 1";
    EXPECT_EQ(thrownBy([] { CSignalMask(-1); }), tooMany);
    EXPECT_THROW(largest += CSignalMask(1), std::length_error);
    EXPECT_FALSE(largest.resize(953));
    EXPECT_EQ(takeLog(), "CSignalMask::resize: Catched exception \"" + tooMany + "\"\n");
    EXPECT_EQ(largest.count(), 952U);
    CSignalMask twice("110");
    twice += twice;
    EXPECT_EQ(text(twice), "110110");
}

TEST(SignalMask, IsMadeFromTextAndRefusesAnyOther) {
    CSignalMask mask("1010");
    EXPECT_EQ(text(mask), "1010");
    EXPECT_TRUE(mask.test(0) && !mask[1] && mask[2]);
    EXPECT_FALSE(mask.assign("10x"));
    EXPECT_TRUE(mask.empty());
    mask = "11";
    EXPECT_EQ(thrownBy([&] { mask = "12"; }), "CSignalMask::operator=: Invalid string in assignment");
    EXPECT_EQ(thrownBy([] { CSignalMask("2"); }),
              "CSignalMask: Read-In constructor invalid initialisation string to constructor provided");

    CSignalMask ten(10);
    const CSignalMask nine(9);
    const std::string beyond = ": Argument exceeds size";
    const std::string differing = ": Method is not allowed to be called with differing lengths.";
    const unsigned char raw[2] = {};
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { ten.set(10); }, "CSignalMask::set" + beyond},
        {[&] { ten.set(3, 8, raw); }, "CSignalMask::set" + beyond},
        {[&] { ten.reset(10); }, "CSignalMask::reset" + beyond},
        {[&] { ten.reset(11, 0); }, "CSignalMask::reset" + beyond},
        {[&] { ten.flip(10); }, "CSignalMask::flip" + beyond},
        {[&] { ten.flip(1, ~0U); }, "CSignalMask::flip" + beyond},
        {[&] { ten.test(10); }, "CSignalMask::test" + beyond},
        {[&] { ten.submask(9, 2); }, "CSignalMask::submask" + beyond},
        {[&] { ten.submask(nine); }, "CSignalMask::submask" + differing},
        {[&] { ten& nine; }, "CSignalMask::operator&" + differing},
        {[&] { ten | nine; }, "CSignalMask::operator|" + differing},
        {[&] { ten ^ nine; }, "CSignalMask::operator^" + differing},
        {[&] { ten &= nine; }, "CSignalMask::operator&=" + differing},
        {[&] { ten |= nine; }, "CSignalMask::operator|=" + differing},
        {[&] { ten ^= nine; }, "CSignalMask::operator^=" + differing},
    };
    for (const auto& [step, expected] : rows) {
        EXPECT_EQ(thrownBy(step), expected);
        EXPECT_THROW(step(), std::range_error);
    }
}

TEST(SignalMask, TravelsAsItsBytes) {
    const unsigned char raw[] = {0x61, 0xFF};
    const CSignalMask mask(11, raw);
    EXPECT_EQ(text(mask), "10000110111");
    char buffer[4] = {};
    unsigned count = 9;
    EXPECT_FALSE(mask.write(buffer, 1, count));
    EXPECT_TRUE(mask.write(buffer, 4, count));
    EXPECT_EQ(hex({buffer, count}), "61 07") << "bits beyond the last are 0";
    std::ostringstream out;
    EXPECT_TRUE(mask.write(out));
    EXPECT_EQ(hex(out.str()), "61 07");
    char line[11];
    EXPECT_FALSE(mask.print(line, 10, count));
    EXPECT_TRUE(mask.print(line, 11, count));
    EXPECT_TRUE(CSignalMask().print(nullptr, 0, count) && CSignalMask().write(nullptr, 0, count));
    EXPECT_EQ(count, 0U);

    CSignalMask read("1");
    EXPECT_FALSE(read.read(buffer, 1, 2, count));
    EXPECT_TRUE(read.empty()) << "a failed read discards the content";
    EXPECT_TRUE(read.read(buffer, 2, 2, count));
    EXPECT_EQ(read.bits(), 16U) << "from the wire always whole bytes";
    std::istringstream in("a");
    EXPECT_FALSE(read.read(in, 2));
    std::istringstream throwing("a");
    throwing.exceptions(std::ios::failbit);
    EXPECT_FALSE(read.read(throwing, 2));
    EXPECT_TRUE(takeLog().starts_with("CSignalMask::read: catched exception \""));
    std::istringstream many(std::string(200, 'x'));
    EXPECT_FALSE(read.read(many, 120));
    EXPECT_TRUE(read.read(many, 119));
    CSignalMask copy("11");
    copy[0] = copy[1].flip();
    EXPECT_EQ(text(copy), "00");
    EXPECT_TRUE(~copy[0]);
}

} // namespace
} // namespace Quorvex::test
