#include "quorvex/stream/TraceQueue.h"

#include "tests/support/RandomPackets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <thread>
#include <vector>

namespace Quorvex::test {
namespace {

/// Counts its releases.
struct Counted : CPacket {
    explicit Counted(unsigned& count) : CPacket(Fill, 0), released(count) {}
    ~Counted() override { ++released; }
    unsigned& released;
};

/// A packet that its taker can tell from all others.
CPacket* numbered(std::uint64_t number) {
    return CPacketFactory::getCTimestamp(number);
}

using Numbers = std::vector<std::uint64_t>;

Numbers takeNumbers(std::list<CPacket*>& packets) {
    Numbers numbers;
    for (const CPacket* packet : packets)
        numbers.push_back(dynamic_cast<const CTimestamp&>(*packet).Timestamp());
    CPacketFactory::release(packets);
    return numbers;
}

Numbers upTo(unsigned count) {
    Numbers numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0U);
    return numbers;
}

TEST(TraceQueue, KeepsTheOrderAndTellsOfTheEnd) {
    CTraceQueue queue;
    EXPECT_TRUE(queue.put(PacketPointer(numbered(1)).get()));
    CPacket* end = CPacketFactory::getCEndOfTrace();
    EXPECT_TRUE(queue.forward(end) && end == nullptr);
    std::list<CPacket*> more{numbered(2), numbered(3)};
    EXPECT_TRUE(queue.forward(more) && more.empty());
    EXPECT_TRUE(queue.size() == 4 && queue.out_size() == 4 && queue.position() == 0);

    EXPECT_EQ(queue.peek(), Timestamp);
    more = {numbered(0), queue.get()};
    EXPECT_FALSE(queue.eot());
    EXPECT_EQ(queue.peek(), EndOfTrace);
    EXPECT_TRUE(PacketPointer(queue.get()) && queue.eot());
    EXPECT_TRUE(queue.get(more));
    EXPECT_EQ(takeNumbers(more), upTo(4));
    EXPECT_FALSE(queue.get(more));
    EXPECT_TRUE(queue.eot() && queue.good()) << "as the list form leaves them";
    queue.clear();
    EXPECT_FALSE(queue.eot());
}

TEST(TraceQueue, IsNotGoodAfterAFailureUntilCleared) {
    CPacket unknown(tagTCode(0x06), 0);
    CFill fill(1);
    for (const unsigned failure : {0U, 1U, 2U}) {
        CTraceQueue queue;
        EXPECT_TRUE(queue.good());
        EXPECT_TRUE(failure == 0 ? queue.peek() == Sync : failure == 1 ? !queue.get() : !queue.put(&unknown));
        EXPECT_EQ(queue.size(), 0U);
        EXPECT_TRUE(queue.put(&fill) && !queue.good());
        queue.clear();
        EXPECT_TRUE(queue.good());
    }
}

TEST(TraceQueue, RefusesNullPacketsAndPassesNullEntriesOn) {
    CTraceQueue queue;
    CPacket* none = nullptr;
    EXPECT_FALSE(queue.put(none) || queue.forward(none));
    EXPECT_EQ(takeLog(), "CTraceQueue: Bad pointer on input of put() function.\n"
                         "CTraceQueue: Bad pointer on input of forward() function.\n");
    std::list<CPacket*> entries{none};
    EXPECT_TRUE(queue.forward(entries));
    EXPECT_EQ(queue.peek(), Sync);
    EXPECT_TRUE(queue.good());
    EXPECT_EQ(queue.get(), nullptr);
    EXPECT_TRUE(!queue.good() && queue.size() == 0);
}

TEST(TraceQueue, ReleasesWhatIsLeftWhenItIsDestroyed) {
    unsigned released = 0;
    {
        CTraceQueue queue, other;
        std::list<CPacket*> packets{new Counted(released), nullptr, new Counted(released)};
        queue.forward(packets);
        EXPECT_TRUE(other.merge(queue) && queue.size() == 0);
        EXPECT_EQ(released, 0U);
    }
    EXPECT_EQ(released, 2U);
    EXPECT_EQ(takeLog(), "");
}

TEST(TraceQueue, HandsPacketsFromOneThreadToAnother) {
    constexpr unsigned kCount = 20'000;
    CTraceQueue queue;
    std::thread producer([&queue] {
        for (unsigned i = 0; i < kCount; i += 2) {
            queue.put(PacketPointer(numbered(i)).get());
            CPacket* packet = numbered(i + 1);
            queue.forward(packet);
        }
        CPacket* end = CPacketFactory::getCEndOfTrace();
        queue.forward(end);
    });
    std::list<CPacket*> got;
    while (!queue.eot()) {
        queue.peek();
        if (CPacket* packet = queue.get()) {
            got.push_back(packet);
        } else {
            queue.clear();
            std::this_thread::yield();
        }
    }
    producer.join();
    EXPECT_TRUE(PacketPointer(got.back())->TraceCode() == EndOfTrace);
    got.pop_back();
    EXPECT_TRUE(takeNumbers(got) == upTo(kCount));
}

TEST(TraceQueue, LosesNothingWhileTwoQueuesMergeIntoEachOther) {
    constexpr unsigned kCount = 5'000;
    CTraceQueue a, b;
    CPacket unknown(tagTCode(0x06), 0);
    const auto work = [&unknown](CTraceQueue& own, CTraceQueue& other, unsigned start) {
        for (unsigned i = 0; i < kCount; ++i) {
            CPacket* packet = numbered(start + i);
            own.forward(packet);
            own.merge(other);
            own.peek();
            if (own.good())
                own.put(&unknown);
        }
    };
    std::thread first(work, std::ref(a), std::ref(b), 0);
    std::thread second(work, std::ref(b), std::ref(a), kCount);
    first.join();
    second.join();
    a.merge(b);
    a.merge(a);
    std::list<CPacket*> packets;
    a.get(packets);
    Numbers numbers = takeNumbers(packets);
    std::sort(numbers.begin(), numbers.end());
    EXPECT_TRUE(numbers == upTo(2 * kCount));
}

TEST(PacketSequence, IsAListThatNeverReleases) {
    unsigned released = 0;
    Counted a(released), b(released), c(released);
    const std::list<CPacket*> all{&a, &b, &c};
    CPacketSequence sequence;
    sequence.pop();
    EXPECT_EQ(sequence.get(), nullptr);
    sequence.push(&b);
    sequence.insert(sequence.begin(), &a);
    sequence.insert(sequence.end(), std::next(all.begin(), 2), all.end());
    const CPacketSequence copy(sequence);
    EXPECT_EQ(std::list<CPacket*>(copy.begin(), copy.end()), all);
    EXPECT_TRUE(copy.front() == &a && copy.back() == &c);
    EXPECT_EQ(*sequence.erase(sequence.begin()), &b);
    sequence.front() = &a;
    sequence.pop();
    EXPECT_EQ(sequence.back(), &c);
    EXPECT_EQ(sequence.erase(sequence.begin(), sequence.end()), sequence.end());
    EXPECT_TRUE(sequence.empty());
    sequence.assign(copy.begin(), copy.end());
    EXPECT_TRUE(sequence.merge(sequence));
    std::list<CPacket*> list;
    EXPECT_TRUE(sequence.move_to(list) && !sequence.move_to(list));
    EXPECT_EQ(list, all);
    EXPECT_TRUE(sequence.splice(list));
    sequence.clear();
    EXPECT_TRUE(sequence.empty() && released == 0);
}

} // namespace
} // namespace Quorvex::test
