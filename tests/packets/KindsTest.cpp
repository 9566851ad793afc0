// The whole treatment of every kind, from the table of samples.

#include "quorvex/packets/SoftwareObjectPackets.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace Quorvex::test {
namespace {

std::string written(CPacket& packet) {
    return hex(wireOf(packet));
}

/// What a Read-In constructor is expected to say with `size` bytes of payload there.
std::string expected(const std::vector<Cut>& cuts, std::size_t size) {
    for (const Cut& cut : cuts) {
        if (size < cut.below)
            return cut.text;
    }
    return {};
}

class Kinds : public testing::TestWithParam<Sample> {
protected:
    PacketPointer make() const { return PacketPointer(GetParam().make()); }
    const std::string wire = bytes(GetParam().wire);
    const std::string payload = wire.substr(2);
    const CPacketHeader header{codeOf(wire), static_cast<std::uint8_t>(wire[1])};
};

TEST_P(Kinds, WritesItsBytesOnBothMediaAndNothingWhereTheyDoNotFit) {
    const PacketPointer packet = make();
    ASSERT_EQ(packet->StreamSize(), wire.size());
    EXPECT_EQ(packet->TraceCode(), header.TraceCode());
    EXPECT_EQ(packet->Length(), header.Length());
    EXPECT_EQ(written(*packet), hex(wire));

    std::ostringstream out;
    EXPECT_TRUE(packet->write(out));
    EXPECT_EQ(hex(out.str()), hex(wire));

    EXPECT_EQ(packet->write(nullptr, 1000), 0U);
    const bool leavesTextOut = header.TraceCode() == SignalDefine || header.TraceCode() == RelSignalDefine;
    for (unsigned size = 0; size < wire.size(); ++size) {
        const std::unique_ptr<char[]> small(new char[size + 1]);
        small[size] = '\x55';
        const unsigned alone = 2 + header.Length();
        EXPECT_EQ(packet->write(small.get(), size), leavesTextOut && size >= alone ? alone : 0U) << size;
        EXPECT_EQ(small[size], '\x55');
    }
}

TEST_P(Kinds, ReadsBackFromBothMedia) {
    unsigned consumed = 0;
    const ExactBlock block(wire);
    std::istringstream in(wire + "\x7a"), again(wire);
    const PacketPointer fromBuffer(CPacketFactory::getCPacket(block.data(), block.size(), consumed));
    const PacketPointer fromStream(CPacketFactory::getCPacket(in));
    EXPECT_EQ(consumed, wire.size());
    EXPECT_EQ(in.get(), 0x7A) << "reads up to the next packet and no further";
    const PacketPointer target(CPacketFactory::getCPacket(header.TraceCode()));
    const PacketPointer other(CPacketFactory::getCPacket(header.TraceCode()));
    EXPECT_EQ(target->read(block.data(), block.size()), wire.size());
    EXPECT_TRUE(other->read(again));
    for (CPacket* packet : {fromBuffer.get(), fromStream.get(), target.get(), other.get()}) {
        ASSERT_TRUE(packet);
        EXPECT_EQ(written(*packet), hex(wire));
    }
}

TEST_P(Kinds, SaysForEveryCutWhichStepFailed) {
    for (unsigned size = 0; size < payload.size(); ++size) {
        const std::string cut = payload.substr(0, size);
        const ExactBlock block(cut);
        unsigned consumed = 77;
        const std::string said = expected(GetParam().bufferCuts, size);
        EXPECT_EQ(thrownBy([&] { PacketPointer(CPacketFactory::getCPacket(header, block.data(), size, consumed)); }),
                  said)
            << "buffer of " << size;
        EXPECT_TRUE(said.empty() || consumed == 0 || header.TraceCode() == CharString);
        for (const std::ios::iostate throws : {std::ios::goodbit, std::ios::failbit | std::ios::eofbit}) {
            std::istringstream in(cut);
            in.exceptions(throws);
            EXPECT_EQ(thrownBy([&] { PacketPointer(CPacketFactory::getCPacket(header, in)); }),
                      expected(GetParam().streamCuts, size))
                << "stream of " << size;
        }
    }
}

TEST_P(Kinds, StaysAsItIsWhenAReadFails) {
    const PacketPointer packet = make();
    for (unsigned size = 0; size < wire.size(); ++size) {
        if (size >= 2 && expected(GetParam().bufferCuts, size - 2).empty())
            continue; // readable without the text that follows
        std::string damaged = wire.substr(0, size);
        for (std::size_t i = 2; i < std::min<std::size_t>(size, 2 + header.Length()); ++i)
            damaged[i] = static_cast<char>(~damaged[i]);
        const ExactBlock block(damaged);
        EXPECT_EQ(packet->read(block.data(), block.size()), 0U) << size;
        EXPECT_EQ(written(*packet), hex(wire)) << size;
        std::istringstream in(damaged);
        EXPECT_FALSE(packet->read(in)) << size;
        EXPECT_EQ(written(*packet), hex(wire)) << size;
    }
    EXPECT_EQ(packet->read(nullptr, 1000), 0U);
}

TEST_P(Kinds, TakesNoHeaderThatIsNotItsOwn) {
    if (header.TraceCode() == CharString)
        return; // has a payload of any length
    const PacketPointer packet = make();
    const auto read = [&](tagTCode code, unsigned length) {
        std::string other = wire.substr(0, 2 + std::min(length, header.Length())) + std::string(300, '\0');
        other[0] = static_cast<char>(code);
        other[1] = static_cast<char>(length);
        const ExactBlock block(other);
        const bool fromBuffer = packet->read(block.data(), block.size()) != 0;
        const std::string now = written(*packet);
        std::istringstream in(other);
        EXPECT_EQ(packet->read(in), fromBuffer);
        EXPECT_EQ(written(*packet), now);
        return fromBuffer;
    };
    EXPECT_FALSE(read(header.TraceCode() == ExecInsn ? NonExecInsn : ExecInsn, header.Length()));
    const auto [least, most] = CTCodeInfo::TCodeToLength(header.TraceCode());
    // What the layouts do not tell: short trace-enabled packets, and function entries with their source.
    const bool isEnabled = header.TraceCode() == TraceEnabled;
    const bool hasForms = isEnabled || dynamic_cast<CFunctionEnterPayload*>(packet.get());
    for (unsigned length = 0; length < 256; ++length) {
        const std::string before = written(*packet);
        if (!read(header.TraceCode(), length)) {
            EXPECT_EQ(written(*packet), before) << length;
            continue;
        }
        EXPECT_TRUE(least != most || least == length || hasForms) << length;
        EXPECT_EQ(packet->Length(), length);
        EXPECT_EQ(written(*packet).size(), 3 * (2 + std::max(length, isEnabled ? 16U : 0U)) - 1);
    }
}

TEST_P(Kinds, IsDuplicatedWithAllItOwns) {
    PacketPointer original = make();
    const PacketPointer copy(CPacketFactory::duplicate(original.get()));
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.get(), original.get());
    original.reset();
    EXPECT_EQ(written(*copy), hex(wire));
}

/// Compression and back against a context of one kind, whose relative form is `relativeContext` on the wire. Packets
/// that `carry` none of that kind are left alone.
template <class Context>
void expectComesBack(CPacket& packet, bool carry, const Context& last, const std::string& relativeContext) {
    const PacketPointer relative(CPacketFactory::compress(&packet, last));
    ASSERT_EQ(relative != nullptr, carry);
    if (!carry)
        return;
    EXPECT_EQ(CPacketFactory::decompress(&packet, last), nullptr) << "is absolute";
    EXPECT_EQ(CPacketFactory::compress(&packet, Context()), nullptr) << "too far from that context";
    const std::string wire = wireOf(packet);
    std::string small = wire.substr(0, 2) + relativeContext + wire.substr(2 + Context::Len());
    small[0] = static_cast<char>(small[0] - 0x10);
    small[1] = static_cast<char>(static_cast<std::size_t>(small[1]) + relativeContext.size() - Context::Len());
    EXPECT_EQ(written(*relative), hex(small));
    const PacketPointer absolute(CPacketFactory::decompress(relative.get(), last));
    ASSERT_TRUE(absolute);
    EXPECT_EQ(written(*absolute), hex(wire));
    EXPECT_EQ(CPacketFactory::compress(relative.get(), last), nullptr) << "carries no full context";
}

TEST_P(Kinds, ComesBackFromItsRelativeForm) {
    const PacketPointer packet = make();
    const std::string name = CTCodeInfo::TCodeToName(header.TraceCode());
    const bool isPair = CTCodeInfo::TCodeToName(tagTCode((header.TraceCode() - 0x10) & 0xFF)) == "Rel" + name;
    const std::string_view layout = CTCodeInfo::TCodeToFormat(header.TraceCode());
    const auto carries = [&](const char* context) { return isPair && layout.starts_with(context); };
    // The lowest bytes differ by 08 ^ aa and 38 ^ bb.
    expectComesBack(*packet, carries("Tick:8|HWCtx:4|SWCtx:4|IP:8"),
                    CCoreContext(0x01020304050607AA, 0x11121314, 0x21222324, 0x31323334353637BB), "\xa2\x83");
    expectComesBack(*packet, carries("Tick:8|HWCtx:4|Master:4"),
                    CBusContext(0x01020304050607AA, 0x11121314, 0x21222324), "\xa2");
    expectComesBack(*packet, carries("Tick:8|Channel:4|Master:4"),
                    CSystemContext(0x01020304050607AA, 0x11121314, 0x21222324), "\xa2");
}

INSTANTIATE_TEST_SUITE_P(All, Kinds, testing::ValuesIn(samples()),
                         [](const testing::TestParamInfo<Sample>& row) { return row.param.name; });

TEST(KindTable, HasASampleForEveryKindAndADefaultOfTheSmallestLength) {
    unsigned kinds = 0;
    for (unsigned code = 0; code < 256; ++code) {
        const PacketPointer packet(CPacketFactory::getCPacket(tagTCode(code)));
        if (!packet)
            continue;
        ++kinds;
        EXPECT_EQ(packet->TraceCode(), code);
        // The layouts of signals ask for masks of at least one byte; a fresh packet has none.
        const unsigned masks = code == SignalDefine || code == RelSignalDefine ? 1
                               : code == Signal || code == RelSignal           ? 2
                                                                               : 0;
        EXPECT_EQ(packet->Length(), CTCodeInfo::TCodeToLength(tagTCode(code)).first - masks) << code;
        const auto sampled = [code](const Sample& sample) { return codeOf(bytes(sample.wire)) == tagTCode(code); };
        EXPECT_TRUE(std::ranges::any_of(samples(), sampled)) << CTCodeInfo::TCodeToName(tagTCode(code));
    }
    EXPECT_GE(kinds, 93U);
}

} // namespace
} // namespace Quorvex::test
