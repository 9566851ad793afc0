#include "quorvex/packets/ContextStub.h"

#include "quorvex/factory/PacketFactory.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

namespace Quorvex::test {
namespace {

constexpr std::uint32_t kNone32 = 0xFFFFFFFF;

std::set<unsigned> codes(std::initializer_list<std::pair<unsigned, unsigned>> ranges) {
    std::set<unsigned> result;
    for (const auto& [first, last] : ranges) {
        for (unsigned code = first; code <= last; ++code)
            result.insert(code);
    }
    return result;
}

TEST(ContextView, KnowsWhichCodesCarryWhichContext) {
    const auto core = codes({{0x10, 0x15},
                             {0x32, 0x33},
                             {0x50, 0x57},
                             {0x76, 0x76},
                             {0x7B, 0x7B},
                             {0x7F, 0x7F},
                             {0x90, 0x9C},
                             {0xB0, 0xB8}});
    const auto bus = codes({{0x72, 0x72}, {0xD0, 0xD4}});
    const auto system = codes({{0x73, 0x73}, {0xD5, 0xD5}});
    for (unsigned value = 0; value < 256; ++value) {
        const auto code = tagTCode(value);
        EXPECT_EQ(CContextStub::hasCoreContext(code), core.contains(value)) << value;
        EXPECT_EQ(CContextStub::hasBusContext(code), bus.contains(value)) << value;
        EXPECT_EQ(CContextStub::hasSystemContext(code), system.contains(value)) << value;
        EXPECT_EQ(CContextStub::hasContext(code),
                  core.contains(value) || bus.contains(value) || system.contains(value));
    }
}

TEST(ContextView, ShowsTheFieldsOfEveryKindThatHasThem) {
    // Types and variables carry a core context, but their single fields are not shown.
    const auto fields = codes({{0x10, 0x15}, {0x7B, 0x7B}, {0x7F, 0x7F}, {0x90, 0x97}});
    const auto whole = codes({{0x10, 0x15}, {0x7B, 0x7B}, {0x7F, 0x7F}, {0x90, 0x97}, {0xB0, 0xB5}});
    const auto relative = codes({{0x00, 0x05}, {0x80, 0x87}});
    const CCoreContext context(1, 2, 3, 4);
    for (unsigned code = 0; code < 256; ++code) {
        std::unique_ptr<CPacket> packet(CPacketFactory::getCPacket(tagTCode(code)));
        if (!packet)
            continue;
        if (auto* core = dynamic_cast<CCoreContext*>(packet.get()))
            *core = context;
        if (auto* rel = dynamic_cast<CRelCoreContext*>(packet.get()))
            *rel = CRelCoreContext(5, 6);
        const CContextStub stub(packet.get());
        const bool shown = fields.contains(code);
        EXPECT_EQ(stub.Tick(), shown ? 1 : kUnknown64) << code;
        EXPECT_EQ(stub.HWCtx(), shown ? 2 : kNone32) << code;
        EXPECT_EQ(stub.SWCtx(), shown ? 3 : kNone32) << code;
        EXPECT_EQ(stub.CurrAddr(), shown ? 4 : kUnknown64) << code;
        EXPECT_EQ(stub.Master(), kNone32);
        EXPECT_EQ(stub.Channel(), kNone32);
        EXPECT_EQ(stub.RelTick(), relative.contains(code) ? 5 : 0xFF) << code;
        EXPECT_EQ(stub.RelCurrAddr(), relative.contains(code) ? 6 : 0xFF) << code;
        EXPECT_EQ(stub.CoreCtx() == context, whole.contains(code)) << code;
        EXPECT_EQ(stub.CoreCtx() == CCoreContext(), !whole.contains(code)) << code;
        EXPECT_TRUE(stub.BusCtx() == CBusContext());
        EXPECT_TRUE(stub.SystemCtx() == CSystemContext());
    }
}

TEST(ContextView, ShowsTheCoreOfATimestampOnlyWhenItIsThere) {
    CTimestamp timestamp(1, std::uint64_t{2});
    CContextStub stub(&timestamp);
    EXPECT_EQ(stub.HWCtx(), kNone32);
    timestamp.HWCtx(7);
    EXPECT_EQ(stub.HWCtx(), 7U);
    EXPECT_FALSE(stub.hasContext());
    stub = nullptr;
    EXPECT_EQ(stub.HWCtx(), kNone32);
    EXPECT_EQ(stub.Tick(), kUnknown64);
    EXPECT_EQ(stub.RelTick(), 0xFF);
    EXPECT_FALSE(stub.hasContext() || stub.hasCoreContext() || stub.hasBusContext() || stub.hasSystemContext());
    EXPECT_TRUE(stub.CoreCtx() == CCoreContext());
}

} // namespace
} // namespace Quorvex::test
