#include "quorvex/stream/TraceWriterPlain.h"

#include "quorvex/stream/TraceFileWriter.h"
#include "tests/support/Doubles.h"
#include "tests/support/System.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace Quorvex::test {
namespace {

TEST(PlainWriter, NeverFillsItsBlockToTheLastByte) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    CFill fill(254); // 1024 of them are a block
    for (unsigned i = 0; i < 1024; ++i)
        writer.put(&fill);
    EXPECT_EQ(sink.operations.front(), "write 0 261888");
    EXPECT_EQ(writer.out_size(), 256U);
    EXPECT_FALSE(writer.put(PacketPointer(new CFunctionDefine(named(kBlockSize))).get()) || writer.put(nullptr));
    writer.flush();
    EXPECT_EQ(sink.bytes.size(), 1024 * 256U);
}

TEST(PlainWriter, KeepsWhatTheTargetDoesNotTake) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    CFill fill(8);
    std::string expected;
    for (unsigned i = 0; i < 10; ++i) {
        writer.put(&fill);
        expected += wireOf(fill);
    }
    sink.refuse = true;
    writer.flush();
    EXPECT_EQ(takeLog(), "CTraceWriterPlain::flush(): Could not flush buffer to trace output.\n\n");
    EXPECT_TRUE(writer.out_size() == 100 && !writer.good());
    writer.clear();
    sink.most = 33;
    writer.flush();
    EXPECT_TRUE(writer.out_size() == 67 && writer.tellp() == 100);
    writer.put(&fill);
    sink.most = ~0U;
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), hex(expected + wireOf(fill)));
    EXPECT_EQ(sink.operations.back(), "flush");
}

TEST(PlainWriter, TellsWhyItsFileCouldNotBeWritten) {
    CFunctionDefine define = named(200'000);
    for (const unsigned count : {3U, 1U}) {
        if (!hasFullDevice())
            GTEST_SKIP() << "no device is full here";
        CTraceFileWriterPlain full("/dev/full");
        for (unsigned i = 0; i < count; ++i)
            EXPECT_EQ(full.put(&define), i == 0) << i;
        EXPECT_FALSE(full.close());
        EXPECT_EQ(full.error(), ENOSPC);
        takeLog();
    }
}

TEST(PlainWriter, ForwardsAListWhollyOrNotAtAllUnlessSomeHasGoneOut) {
    MemorySink sink;
    CTraceWriterPlain writer(sink);
    sink.refuse = true; // so that the flush for the oversize one moves nothing
    std::list<CPacket*> packets{new CFill(1), nullptr, new CFill(2), new CFunctionDefine(named(kBlockSize))};
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_EQ(packets.size(), 4U);
    EXPECT_EQ(writer.out_size(), 0U) << "nothing is written twice on a retry";
    sink.refuse = false;
    EXPECT_FALSE(writer.forward(packets));
    EXPECT_EQ(packets.size(), 1U) << "what has gone out is not the caller's any more";
    EXPECT_EQ(hex(sink.bytes), "7d 01 80 7d 02 80 80");
    CPacket* one = packets.front();
    EXPECT_FALSE(writer.forward(one));
    EXPECT_EQ(one, packets.front());
    CPacketFactory::release(packets);

    EXPECT_TRUE(writer.forward(packets));
    packets = {new CFill(3), nullptr};
    EXPECT_TRUE(writer.forward(packets) && packets.empty());
    one = new CFill(4);
    EXPECT_TRUE(writer.forward(one) && one == nullptr);
}

TEST(PlainWriter, SeeksInsideAndOutsideItsBlock) {
    MemorySink sink("0123456789");
    CTraceWriterPlain writer(sink);
    EXPECT_EQ(writer.tellp(), 10U) << "goes on at the end of what is there";
    CFill fill(1);
    CTraceDisabled disabled;
    writer.put(&fill);
    writer.put(&fill);
    EXPECT_TRUE(writer.seekp(13) && writer.out_size() == 3);
    writer.put(&disabled);
    writer.flush();
    EXPECT_TRUE(writer.seekp(4) && writer.tellp() == 4);
    writer.put(&disabled);
    writer.flush();
    EXPECT_EQ(hex(sink.bytes), "30 31 32 33 7a 00 36 37 38 39 7d 01 80 7a 00");
    sink.fixed = true;
    EXPECT_FALSE(writer.seekp(1));
}

} // namespace
} // namespace Quorvex::test
