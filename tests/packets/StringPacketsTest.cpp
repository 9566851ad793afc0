#include "quorvex/packets/StringPackets.h"

#include "quorvex/format/Context.h"
#include "quorvex/format/Data.h"
#include "quorvex/packets/SignalMask.h"
#include "tests/support/Bytes.h"
#include "tests/support/OddStream.h"
#include "tests/support/System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
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

TEST(CharStringSequence, IsEmptyWhenAStreamFailsAndKeepsItsTextWhenABufferDoes) {
    const std::string whole = run(text(300));
    const CCharStringSequence kept("kept");
    for (const unsigned size : {1U, 2U, 5U, 256U, 258U, 259U, 303U}) {
        CCharStringSequence sequence(kept);
        EXPECT_EQ(sequence.read(whole.data(), size), 0U) << size;
        EXPECT_EQ(sequence.view(), "kept") << size;
        std::istringstream cut(whole.substr(0, size));
        EXPECT_FALSE(sequence.read(cut)) << size;
        EXPECT_TRUE(sequence.empty() && sequence.Length() == 0) << size;
    }
    for (const char* none : {"", "\x10\x18"}) {
        CCharStringSequence sequence(kept);
        std::istringstream other(none);
        EXPECT_TRUE(sequence.read(other)) << "what is no text is the empty one";
        EXPECT_TRUE(sequence.empty() && sequence.Length() == 0);
    }
}

TEST(CharStringSequence, TellsItsSizeBeyond32BitsOnlyAsTooLarge) {
    static_assert(CCharStringSequence::StreamSize(0) == 2 && CCharStringSequence::StreamSize(255) == 259 &&
                  CCharStringSequence::StreamSize(300) == 304);
    static_assert(CCharStringSequence::StreamSize(4'261'543'424U) == 0xFFFFFFFEU);
    static_assert(CCharStringSequence::StreamSize(4'261'543'425U) == 0x100000001U);
    static_assert(CCharStringSequence::StreamSize(0xFFFFFFFFU) == 0xFFFFFFFFULL + 2 * 16'843'010ULL);
}

TEST(CharStringSequence, LetsDerivedClassesSetTheHeader) {
    struct Name : CCharStringSequence {
        using CCharStringSequence::CCharStringSequence, CCharStringSequence::SetHeaderLength;
        using CCharStringSequencePayload::append;
    } name("ab");
    name.append(reinterpret_cast<const unsigned char*>("cd"), 2);
    EXPECT_EQ(name.Length(), 2U);
    name.SetHeaderLength();
    EXPECT_EQ(name.Length(), 4U);
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
    EXPECT_EQ(thrownBy([&] { CCharStringSequence(header, "a", 1, consumed); }), refused);
    EXPECT_EQ(thrownBy([&] { CCharStringSequence(header, in); }), refused);
    EXPECT_EQ(in.get(), 'a') << "nothing is read";
    const CPacketHeader two(CharString, 2);
    const std::string cutShort = "CCharString: Read-In constructor could not read payload.";
    EXPECT_EQ(thrownBy([&] { CCharString(two, "a", 1, consumed); }), cutShort);
    EXPECT_EQ(thrownBy([&] { CCharString(two, in); }), cutShort);

    // A plain read takes no other kind of packet either, and changes nothing then.
    packet = CCharString("kept");
    const std::string foreign("\x7f\x01x", 3);
    EXPECT_EQ(packet.read(foreign.data(), 3), 0U);
    std::istringstream stream(foreign);
    EXPECT_FALSE(packet.read(stream));
    EXPECT_TRUE(packet.TraceCode() == CharString && packet.Length() == 4 && packet.data()[0] == 'k');
}

/// How many of the things' reads and writes fail, each on a stream of its own.
template <class... Things> unsigned failures(void (*act)(), Things... things) {
    const auto odd = [act] { return std::make_unique<OddStream>(act); };
    return (0U + ... + (!things.read(*odd()) + !things.write(*odd())));
}

void useEverything(void (*act)()) {
    EXPECT_EQ(failures(act, CPacketHeader(), CPacket(), CCoreContext(), CBusContext(), CSystemContext(),
                       CRelCoreContext(), CRelBusContext(), CRelSystemContext(), CCharString("x")),
              18U);
    const auto odd = [act] { return std::make_unique<OddStream>(act); };
    for (const std::uint8_t length : {std::uint8_t{1}, std::uint8_t{3}}) {
        CData data(1, length);
        EXPECT_TRUE(!data.write(*odd()) && !data.read(*odd(), length) && data.Length() == 0);
    }
    CSignalMask mask("1");
    EXPECT_TRUE(!mask.write(*odd()) && !mask.read(*odd(), 1) && mask.empty());
    CCharStringSequence text("x");
    EXPECT_TRUE(!text.write(*odd()) && text.read(*odd()) && text.empty()) << "a text that cannot be seen is none";
    EXPECT_EQ(thrownBy([&] { CCharStringSequence(CPacketHeader(CharString, 1), *odd()); }),
              "CCharString: Read-In constructor cannot assign read stream data.");
}

TEST(Streams, MayThrowWhatTheyLike) {
    useEverything([] { throw 42; });
    EXPECT_EQ(takeLog(), "") << "only standard exceptions have a text";
    useEverything([] { throw std::runtime_error("odd"); });
    EXPECT_EQ(takeLog(), R"(CPacketHeader::write: Catched exception "odd"
CPacketHeader::write: Catched exception "odd"
CCoreContext::read: Catched exception "odd"
CBusContext::read: Catched exception "odd"
CSystemContext::read: Catched exception "odd"
CPacketHeader::write: Catched exception "odd"
CSignalMask::read: catched exception "odd"
)");
}

TEST(Streams, MayEndTheThread) {
    EXPECT_TRUE(endsThread([](void (*end)()) { failures(end, CPacketHeader()); }));
    EXPECT_TRUE(endsThread([](void (*end)()) { failures(end, CCharString("x")); }));
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
    const auto expectUnits = [](const auto& text, const auto& expected) {
        std::remove_const_t<std::remove_reference_t<decltype(expected[0])>> out[16];
        unsigned written = 0;
        EXPECT_TRUE(CCharStringSequence::convert(text.c_str(), out, 16, &written));
        EXPECT_TRUE(expected == std::basic_string_view(out, written) && out[written] == 0);
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
        expectUnits(text, std::u16string(u"\u00e4b\u20ac\U0001F600"));
        expectUnits(text, std::u32string(U"\u00e4b\u20ac\U0001F600"));
    };
    expectText(utf8);
    expectText(std::u16string(u"\u00e4b\u20ac\U0001F600"));
    expectText(std::u32string(U"\u00e4b\u20ac\U0001F600"));
    expectText(std::wstring(L"\u00e4b\u20ac\U0001F600"));
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
