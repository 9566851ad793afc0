#include "quorvex/packets/ContextStub.h"

#include "quorvex/factory/PacketFactory.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

namespace Quorvex::test {
namespace {

constexpr std::uint32_t kNone32 = 0xFFFFFFFF;

/// All codes of some ranges, of which the first and the last are given.
std::set<unsigned> codes(const std::vector<unsigned>& ends) {
    std::set<unsigned> result;
    for (std::size_t i = 0; i < ends.size(); i += 2) {
        for (unsigned code = ends[i]; code <= ends[i + 1]; ++code)
            result.insert(code);
    }
    return result;
}

TEST(ContextView, KnowsAndShowsTheContextOfEveryCode) {
    const auto core =
        codes({0x10, 0x15, 0x32, 0x33, 0x50, 0x57, 0x76, 0x76, 0x7B, 0x7B, 0x7F, 0x7F, 0x90, 0x9C, 0xB0, 0xB8});
    const auto bus = codes({0x72, 0x72, 0xD0, 0xD4});
    const auto system = codes({0x73, 0x73, 0xD5, 0xD5});
    const auto relativeAddress = codes({0x00, 0x05, 0x22, 0x23, 0x40, 0x47, 0x80, 0x87});
    const auto relativeTick = codes({0x00, 0x05, 0x22, 0x23, 0x40, 0x47, 0x80, 0x87, 0xC0, 0xC5});
    const CCoreContext coreContext(1, 2, 3, 4);
    const CBusContext busContext(1, 2, 7);
    const CSystemContext systemContext(1, 8, 7);
    const auto assign = [](CPacket* packet, const auto& context) {
        using Context = std::remove_cvref_t<decltype(context)>;
        if (auto* held = dynamic_cast<Context*>(packet))
            *held = context;
    };
    for (unsigned code = 0; code < 256; ++code) {
        const bool hasCore = core.contains(code), isBus = bus.contains(code), isSystem = system.contains(code);
        EXPECT_EQ(CContextStub::hasCoreContext(tagTCode(code)), hasCore) << code;
        EXPECT_EQ(CContextStub::hasBusContext(tagTCode(code)), isBus) << code;
        EXPECT_EQ(CContextStub::hasSystemContext(tagTCode(code)), isSystem) << code;
        EXPECT_EQ(CContextStub::hasContext(tagTCode(code)), hasCore || isBus || isSystem) << code;
        const std::unique_ptr<CPacket> packet(CPacketFactory::getCPacket(tagTCode(code)));
        if (!packet)
            continue;
        assign(packet.get(), coreContext);
        assign(packet.get(), busContext);
        assign(packet.get(), systemContext);
        assign(packet.get(), CRelCoreContext(5, 6));
        assign(packet.get(), CRelBusContext(5));
        assign(packet.get(), CRelSystemContext(5));
        const CContextStub stub(packet.get());
        // Types and variables carry a core context, but their single fields are not shown.
        const bool isCore = hasCore && code < 0x98;
        EXPECT_EQ(stub.Tick(), isCore || isBus || isSystem ? 1 : kUnknown64) << code;
        EXPECT_EQ(stub.HWCtx(), isCore || isBus ? 2 : kNone32) << code;
        EXPECT_EQ(stub.SWCtx(), isCore ? 3 : kNone32) << code;
        EXPECT_EQ(stub.CurrAddr(), isCore ? 4 : kUnknown64) << code;
        EXPECT_EQ(stub.Master(), isBus || isSystem ? 7 : kNone32) << code;
        EXPECT_EQ(stub.Channel(), isSystem ? 8 : kNone32) << code;
        EXPECT_EQ(stub.RelTick(), relativeTick.contains(code) ? 5 : 0xFF) << code;
        EXPECT_EQ(stub.RelCurrAddr(), relativeAddress.contains(code) ? 6 : 0xFF) << code;
        EXPECT_TRUE(stub.CoreCtx() == (stub.hasCoreContext() ? coreContext : CCoreContext())) << code;
        EXPECT_TRUE(stub.BusCtx() == (isBus ? busContext : CBusContext())) << code;
        EXPECT_TRUE(stub.SystemCtx() == (isSystem ? systemContext : CSystemContext())) << code;
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

TEST(ContextView, LooksAtAPacketWithoutAnObjectOfItsOwn) {
    const CSync sync(CCoreContext(1, 2, 3, 4));
    EXPECT_TRUE(CContextStub::Tick(&sync) == 1 && CContextStub::HWCtx(&sync) == 2 && CContextStub::SWCtx(&sync) == 3);
    EXPECT_TRUE(CContextStub::CurrAddr(&sync) == 4 && CContextStub::CoreCtx(&sync) == CCoreContext(1, 2, 3, 4));
    EXPECT_TRUE(CContextStub::Master(&sync) == kNone32 && CContextStub::Channel(&sync) == kNone32);
    EXPECT_TRUE(CContextStub::RelTick(nullptr) == 0xFF && CContextStub::RelCurrAddr(&sync) == 0xFF);
    EXPECT_TRUE(CContextStub::BusCtx(&sync) == CBusContext() && CContextStub::SystemCtx(nullptr) == CSystemContext());
    CSync other;
    const CContextStub copy = CContextStub(&other);
    EXPECT_EQ(copy.Tick(), kUnknown64);
}

} // namespace
} // namespace Quorvex::test
