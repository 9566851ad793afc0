#include "quorvex/packets/StringPackets.h"

#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

std::string text(unsigned length) {
    std::string result;
    for (unsigned i = 0; i < length; ++i)
        result += static_cast<char>('a' + i % 26);
    return result;
}

/// A text as the format has it: packets of 255 bytes, then one that is shorter.
std::string run(const std::string& content) {
    std::string result;
    std::size_t at = 0;
    std::size_t chunk = 255;
    while (chunk == 255) {
        chunk = std::min<std::size_t>(255, content.size() - at);
        result += '\x7e';
        result += static_cast<char>(chunk);
        result += content.substr(at, chunk);
        at += chunk;
    }
    return result;
}

TEST(CharStringSequence, IsCutInto255BytesAndEndsWithAShorterPacket) {
    for (const unsigned length : {0U, 1U, 254U, 255U, 256U, 300U, 509U, 510U, 511U, 100'000U}) {
        const std::string content = text(length);
        const std::string expected = run(content);
        CCharStringSequence sequence(content.c_str());
        EXPECT_EQ(sequence.StreamSize(), expected.size()) << length;
        EXPECT_EQ(sequence.Length(), std::min(length, 255U));
        EXPECT_EQ(sequence.TraceCode(), CharString);

        std::string buffer(expected.size(), '\0');
        EXPECT_EQ(sequence.write(buffer.data(), static_cast<unsigned>(buffer.size() - 1)), 0U);
        EXPECT_EQ(sequence.write(buffer.data(), static_cast<unsigned>(buffer.size())), buffer.size());
        EXPECT_TRUE(buffer == expected) << length;
        std::ostringstream out;
        EXPECT_TRUE(sequence.write(out));
        EXPECT_TRUE(out.str() == expected) << length;

        // What follows is not touched, even where a full packet lets the reader hope for more.
        CCharStringSequence fromBuffer, fromStream;
        const ExactBlock block(expected + "\x10\x18");
        EXPECT_EQ(fromBuffer.read(block.data(), block.size()), expected.size());
        EXPECT_TRUE(fromBuffer.view() == content);
        std::istringstream in(expected + "\x10\x18");
        EXPECT_TRUE(fromStream.read(in));
        EXPECT_TRUE(fromStream.view() == content);
        EXPECT_EQ(in.get(), 0x10);
    }
}

TEST(CharStringSequence, ReadsOnBehindAHeaderThatIsAlreadyRead) {
    const std::string content = text(600);
    const std::string wire = run(content);
    const CPacketHeader first(CharString, 255);
    const auto read = [&](unsigned size, bool stream) {
        const ExactBlock block(wire.substr(2, size));
        std::istringstream in(wire.substr(2, size));
        std::string lengths;
        const std::string failure = thrownBy([&] {
            unsigned consumed = 0;
            const auto sequence = stream ? CCharStringSequence(first, in)
                                         : CCharStringSequence(first, block.data(), block.size(), consumed);
            EXPECT_TRUE(stream || consumed == block.size());
            lengths = std::to_string(sequence.length()) + "/" + std::to_string(sequence.Length());
        });
        return lengths + failure;
    };
    for (const bool stream : {false, true}) {
        EXPECT_EQ(read(604, stream), "600/255");
        EXPECT_EQ(read(254, stream), "CCharString: Read-In constructor cannot assign read stream data.");
        EXPECT_EQ(read(255, stream), "255/255") << "a text may end behind a full packet when nothing follows";
        for (const unsigned size : {256U, 257U, 511U})
            EXPECT_EQ(read(size, stream), "CCharString: Read-In constructor cannot append read stream data.");
    }
}

TEST(CharStringSequence, KeepsItsTextWhenAReadFails) {
    CCharStringSequence sequence("kept");
    std::istringstream cut(std::string("\x7e\x05") + "abc");
    EXPECT_FALSE(sequence.read(cut));
    EXPECT_EQ(sequence.read("\x7e\x05"
                            "abc",
                            5),
              0U);
    EXPECT_EQ(sequence.view(), "kept");
    std::istringstream other("\x10\x18");
    EXPECT_TRUE(sequence.read(other)) << "another packet is the empty text";
    EXPECT_TRUE(sequence.empty());
    EXPECT_EQ(sequence.Length(), 0U);
}

TEST(CharStringSequence, AppendsAndAssignsAlsoItself) {
    CCharStringSequence sequence(CCharString("ab"));
    sequence += sequence;
    EXPECT_EQ(sequence.view(), "abab");
    sequence += CCharString("c");
    const CCharStringSequence& self = sequence;
    sequence = self;
    EXPECT_EQ(sequence.view(), "ababc");
    sequence = static_cast<const char*>(nullptr);
    EXPECT_TRUE(sequence.empty());
    sequence = "x";
    sequence.clear();
    EXPECT_EQ(sequence.StreamSize(), 2U);
    const unsigned char raw[] = {0, 1, 0};
    EXPECT_EQ(CCharStringSequence(raw, 3).view(), std::string("\0\1\0", 3));
}

TEST(CharString, HoldsUpTo255Bytes) {
    const CCharString cut(text(300).c_str());
    EXPECT_EQ(cut.Length(), 255U);
    CCharString packet;
    packet.assign(nullptr, 5);
    EXPECT_EQ(packet.Length(), 0U);
    packet = cut;
    packet.clear();
    EXPECT_EQ(packet.StreamSize(), 2U);
    const std::string refused = "CCharString: Read-In constructor invalid header data supplied.";
    const CPacketHeader header(Sync, 1);
    unsigned consumed = 0;
    std::istringstream in("a");
    EXPECT_EQ(thrownBy([&] { CCharString(header, "a", 1, consumed); }), refused);
    EXPECT_EQ(thrownBy([&] { CCharString(header, in); }), refused);
}

TEST(Conversions, GuessTheCharacterSizeByTheZerosAtTheEnd) {
    const auto guess = [](const std::string& raw) {
        return CCharStringSequence::GuessCharSize(static_cast<unsigned>(raw.size()),
                                                  reinterpret_cast<const unsigned char*>(raw.data()));
    };
    EXPECT_EQ(guess("ab"), 0U);
    EXPECT_EQ(guess(std::string("ab\0", 3)), 1U);
    EXPECT_EQ(guess(std::string("a\0b\0\0\0", 6)), 3U);
    EXPECT_EQ(guess(std::string(5, '\0')), 5U);
    EXPECT_EQ(guess(""), 0U);
}

TEST(Conversions, GiveTheSameTextFromEveryEncoding) {
    const std::string utf8 = "\xc3\xa4"
                             "b\xe2\x82\xac\xf0\x9f\x98\x80";
    const auto expectBoth = [&utf8](const auto& convert) {
        char narrow[16];
        unsigned written = 0;
        EXPECT_TRUE(convert(narrow, 16U, &written));
        EXPECT_EQ(std::string(narrow, written), utf8);
        wchar_t wide[16];
        EXPECT_TRUE(convert(wide, 16U, &written));
        EXPECT_EQ(std::wstring(wide, written), L"\u00e4b\u20ac\U0001F600");
        EXPECT_FALSE(convert(narrow, static_cast<unsigned>(utf8.size()), &written)) << "no room for the zero";
        EXPECT_EQ(written, 0U);
    };
    const auto expectSequence = [&expectBoth](const CCharStringSequence& sequence) {
        expectBoth([&](auto... out) { return sequence.getString(out...); });
    };
    const auto expectText = [&](const auto& text) {
        const auto* const raw = reinterpret_cast<const unsigned char*>(text.c_str());
        constexpr unsigned kUnit = sizeof text[0];
        // With the terminator, by which the encoding is told.
        expectSequence(CCharStringSequence(raw, static_cast<unsigned>(text.size() + 1) * kUnit));
        expectBoth([&](auto... out) { return CCharStringSequence::getString(kUnit, raw, out...); });
        expectBoth([&](auto... out) { return CCharStringSequence::convert(text.c_str(), out...); });
    };
    expectText(utf8);
    expectText(std::u16string(u"\u00e4b\u20ac\U0001F600"));
    expectText(std::u32string(U"\u00e4b\u20ac\U0001F600"));
    expectSequence(CCharStringSequence(utf8.c_str()));
    expectSequence(CCharStringSequence(L"\u00e4b\u20ac\U0001F600"));

    char narrow[8];
    EXPECT_TRUE(CCharStringSequence::convert(u"\xd800x", narrow, 8, nullptr));
    EXPECT_STREQ(narrow, "\xef\xbf\xbdx") << "half a surrogate pair is no character";
    wchar_t wide[8];
    EXPECT_TRUE(CCharStringSequence::convert("\xe4\xc3", wide, 8, nullptr));
    EXPECT_STREQ(wide, L"\u00e4\u00c3") << "bytes that are no UTF-8";
    EXPECT_TRUE(CCharStringSequence::convert("\xc0\x80", wide, 8, nullptr));
    EXPECT_STREQ(wide, L"\u00c0\u0080") << "a form longer than it must be";
    EXPECT_FALSE(CCharStringSequence::convert(static_cast<const char*>(nullptr), wide, 8, nullptr));
    EXPECT_FALSE(CCharStringSequence::convert(U"a", narrow, 0, nullptr));
}

} // namespace
} // namespace Quorvex::test
