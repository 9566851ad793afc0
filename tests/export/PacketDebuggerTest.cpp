#include "quorvex/export/PacketDebugger.h"

#include "tests/support/Golden.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

TEST(PacketDebugger, TellsEverySortOfFieldInWords) {
    std::ostringstream out;
    CPacketDebugger printer(out);
    for (const Sample& sample : shownSamples()) {
        const PacketPointer packet(sample.make());
        EXPECT_TRUE(printer.put(packet.get())) << sample.name;
    }
    expectGolden("verbose.txt", out.str());
}

TEST(PacketDebugger, ShowsBytesTextsAndWhatIsUnknown) {
    std::ostringstream out;
    CPacketDebugger printer(out, true);
    CFunctionDefine define(CCoreContext(), 7,
                           "a\"\\\t\xc3\xa4\xff"
                           "1");
    EXPECT_TRUE(printer.put(0x40, define));
    CCounterValue value(CCoreContext(1, 2, 3, 4), 5, TCounter_t(0.5));
    CPacket* packet = new CCounterValue(value);
    CPacketDebugger plain(out);
    EXPECT_TRUE(plain.forward(packet));
    EXPECT_EQ(packet, nullptr);
    std::list<CPacket*> packets{new CSystemData(1, ~0U, 3, CData()), nullptr};
    EXPECT_TRUE(plain.forward(packets));
    EXPECT_EQ(out.str(), "Offset:\t0x0000000000000040\n"
                         "FunctionDefine (0x90): define function\n"
                         "Tick:\tunknown\nHardware Context:\t0\nSoftware Context:\t0\nInstruction Pointer:\tunknown\n"
                         "Function ID:\t0x00000007\nFunction Name:\t\"a\\\"\\\\\\011\xc3\xa4\\3771\"\n"
                         "Bytes:\t90 1c ff ff ff ff ff ff ff ff 00 00 00 00 00 00\n"
                         "\t00 00 ff ff ff ff ff ff ff ff 07 00 00 00 7e 08\n"
                         "\t61 22 5c 09 c3 a4 ff 31\n\n"
                         "CounterValue (0x54): counter value 0 dimensions\n"
                         "Tick:\t1\nHardware Context:\t2\nSoftware Context:\t3\n"
                         "Instruction Pointer:\t0x0000000000000004\nCounter ID:\t0x00000005\n"
                         "Counter Int Value:\t4602678819172646912\nCounter Dbl Value:\t0.5\n\n"
                         "SystemData (0xd5): system trace data\n"
                         "Tick:\t1\nChannel:\tunknown\nMaster:\t3\nData:\tnone\n\n");
    out.str("");
    CRelFunctionDefine cut(1, 2, 3, std::string(255, 'a').c_str());
    EXPECT_TRUE(printer.put(0, cut, cut.StreamSize() - 2)); // in its trace the text has no end
    EXPECT_TRUE(out.str().ends_with(" 61 61 61\n\n"));
    EXPECT_TRUE(printer.put(0, cut));
    EXPECT_TRUE(out.str().ends_with(" 61 61 61 7e 00\n\n"));
    EXPECT_FALSE(plain.put(nullptr));
    out.setstate(std::ios::badbit);
    EXPECT_FALSE(plain.put(&value));
    EXPECT_FALSE(plain.good());
    plain.clear();
    EXPECT_TRUE(plain.good());
}

} // namespace
} // namespace Quorvex::test
