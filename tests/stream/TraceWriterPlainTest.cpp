#include "quorvex/stream/TraceWriterPlain.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/stream/TraceFileWriter.h"
#include "tests/support/Bytes.h"
#include "tests/support/Doubles.h"
#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

namespace Quorvex::test {
namespace {

const std::string kNoFlush = "CTraceWriterPlain::flush(): Could not flush buffer to trace output.\n\n";

TEST(PlainWriter, WritesPacketsBackToBack) {
    RandomPackets random(11);
    std::string expected;
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    EXPECT_FALSE(writer.put(nullptr));
    while (expected.size() < 3 * kPageSize) {
        const PacketPointer packet = random.packet();
        expected += wireOf(*packet);
        ASSERT_TRUE(writer.put(packet.get()));
        ASSERT_EQ(writer.tellp(), expected.size());
    }
    EXPECT_EQ(writer.out_size(), expected.size() - sink.bytes.size());
    writer.flush();
    EXPECT_TRUE(sink.bytes == expected);
    EXPECT_EQ(writer.out_size(), 0U);
    EXPECT_EQ(sink.operations.back(), "flush");
}

TEST(PlainWriter, NeverFillsItsBlockToTheLastByte) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    CFill fill(254); // 1024 of them are a block
    for (unsigned i = 0; i < 1023; ++i)
        writer.put(&fill);
    EXPECT_TRUE(sink.operations.empty());
    writer.put(&fill);
    EXPECT_EQ(sink.operations.front(), "write 0 261888");
    EXPECT_EQ(writer.out_size(), 256U);
    CFunctionDefine huge(CCoreContext(), 1, std::string(kPageSize, 'x').c_str());
    EXPECT_FALSE(writer.put(&huge));
    writer.flush();
    EXPECT_EQ(sink.bytes.size(), 1024 * 256U);
}

TEST(PlainWriter, KeepsWhatTheTargetDoesNotTake) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    CFill fill(8);
    for (unsigned i = 0; i < 10; ++i)
        writer.put(&fill);
    sink.refuse = true;
    writer.flush();
    EXPECT_EQ(takeLog(), kNoFlush);
    EXPECT_EQ(writer.out_size(), 100U);
    sink.refuse = false;
    sink.most = 33;
    writer.flush();
    EXPECT_EQ(writer.out_size(), 67U);
    EXPECT_EQ(writer.tellp(), 100U);
    writer.put(&fill);
    sink.most = ~0U;
    writer.flush();
    std::string expected;
    for (unsigned i = 0; i < 11; ++i)
        expected += wireOf(fill);
    EXPECT_EQ(hex(sink.bytes), hex(expected));
}

TEST(PlainWriter, ForwardsAListWhollyOrNotAtAllUnlessSomeHasGoneOut) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    const auto oversize = [] { return new CFunctionDefine(CCoreContext(), 1, std::string(kPageSize, 'x').c_str()); };
    std::list<CPacket*> packets;
    EXPECT_TRUE(writer.forward(packets));
    sink.refuse = true; // so that the flush for the oversize one moves nothing
    packets = {new CFill(1), nullptr, new CFill(2), oversize()};
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_EQ(packets.size(), 4U);
    EXPECT_EQ(writer.out_size(), 0U) << "nothing is written twice on a retry";
    sink.refuse = false;
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_EQ(packets.size(), 1U) << "what has gone out is not the caller's any more";
    CPacketFactory::release(packets);
    EXPECT_EQ(hex(sink.bytes), "7d 01 80 7d 02 80 80");

    packets = {new CFill(3), nullptr};
    EXPECT_TRUE(writer.forward(packets));
    EXPECT_TRUE(packets.empty());
    CPacket* one = new CFill(4);
    EXPECT_TRUE(writer.forward(one));
    EXPECT_EQ(one, nullptr);
    one = oversize();
    EXPECT_FALSE(writer.forward(one));
    EXPECT_TRUE(CPacketFactory::releaseCPacket(&one));
    takeLog();
}

TEST(PlainWriter, SeeksInsideAndOutsideItsBlock) {
    MemorySink sink("0123456789");
    CTraceWriterPlain writer(sink);
    EXPECT_EQ(writer.tellp(), 10U) << "goes on at the end of what is there";
    CFill fill(1);
    writer.put(&fill);
    writer.put(&fill);
    EXPECT_TRUE(writer.seekp(13));
    EXPECT_EQ(writer.out_size(), 3U);
    CTraceDisabled disabled;
    writer.put(&disabled);
    writer.flush();
    EXPECT_EQ(hex(sink.bytes.substr(10)), "7d 01 80 7a 00");
    EXPECT_TRUE(writer.seekp(4));
    EXPECT_EQ(writer.tellp(), 4U);
    writer.put(&disabled);
    writer.flush();
    EXPECT_EQ(sink.bytes.substr(0, 10), "0123z" + std::string(1, '\0') + "6789");
    sink.fixed = true;
    EXPECT_FALSE(writer.seekp(1));
}

} // namespace
} // namespace Quorvex::test
