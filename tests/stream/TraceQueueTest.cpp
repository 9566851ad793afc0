#include "quorvex/stream/TraceQueue.h"

#include "quorvex/factory/PacketFactory.h"
#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <type_traits>
#include <vector>

namespace Quorvex::test {
namespace {

static_assert(!std::is_copy_constructible_v<CTraceQueue> && !std::is_move_constructible_v<CTraceQueue>);
static_assert(!std::is_copy_assignable_v<CTraceQueue> && !std::is_move_assignable_v<CTraceQueue>);

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

std::uint64_t numberOf(const CPacket* packet) {
    return dynamic_cast<const CTimestamp&>(*packet).Timestamp();
}

std::vector<std::uint64_t> takeNumbers(std::list<CPacket*>& packets) {
    std::vector<std::uint64_t> numbers;
    for (const CPacket* packet : packets)
        numbers.push_back(numberOf(packet));
    CPacketFactory::release(packets);
    return numbers;
}

using Numbers = std::vector<std::uint64_t>;

TEST(TraceQueue, KeepsTheOrderAndTellsOfTheEnd) {
    CTraceQueue queue;
    CPacket* first = numbered(1);
    EXPECT_TRUE(queue.put(first));
    CPacketFactory::releaseCPacket(&first);
    CPacket* end = CPacketFactory::getCEndOfTrace();
    EXPECT_TRUE(queue.forward(end));
    EXPECT_EQ(end, nullptr);
    std::list<CPacket*> more{numbered(2), numbered(3)};
    EXPECT_TRUE(queue.forward(more));
    EXPECT_TRUE(more.empty());
    EXPECT_EQ(queue.size(), 4U);
    EXPECT_EQ(queue.out_size(), 4U);
    EXPECT_EQ(queue.position(), 0U);

    EXPECT_EQ(queue.peek(), Timestamp);
    more = {numbered(0), queue.get()};
    EXPECT_FALSE(queue.eot());
    EXPECT_EQ(queue.peek(), EndOfTrace);
    CPacket* taken = queue.get();
    CPacketFactory::releaseCPacket(&taken);
    EXPECT_TRUE(queue.eot());
    EXPECT_TRUE(queue.get(more));
    EXPECT_EQ(takeNumbers(more), (Numbers{0, 1, 2, 3}));
    EXPECT_FALSE(queue.get(more));
    EXPECT_TRUE(more.empty());
    EXPECT_TRUE(queue.eot() && queue.good()) << "as the list form leaves them";
    queue.clear();
    EXPECT_FALSE(queue.eot());
}

TEST(TraceQueue, IsNotGoodAfterAFailureUntilCleared) {
    CPacket unknown(tagTCode(0x06), 0);
    CFill fill(1);
    const std::vector<void (*)(CTraceQueue&, CPacket&)> failures{
        [](CTraceQueue& queue, CPacket&) { EXPECT_EQ(queue.peek(), Sync); },
        [](CTraceQueue& queue, CPacket&) { EXPECT_EQ(queue.get(), nullptr); },
        [](CTraceQueue& queue, CPacket& odd) { EXPECT_FALSE(queue.put(&odd)); },
    };
    for (const auto failure : failures) {
        CTraceQueue queue;
        EXPECT_TRUE(queue.good());
        failure(queue, unknown);
        EXPECT_EQ(queue.size(), 0U);
        EXPECT_TRUE(queue.put(&fill));
        EXPECT_FALSE(queue.good());
        queue.clear();
        EXPECT_TRUE(queue.good());
    }
}

TEST(TraceQueue, RefusesNullPacketsAndPassesNullEntriesOn) {
    CTraceQueue queue;
    CPacket* none = nullptr;
    EXPECT_FALSE(queue.put(none));
    EXPECT_EQ(takeLog(), "CTraceQueue: Bad pointer on input of put() function.\n");
    EXPECT_FALSE(queue.forward(none));
    EXPECT_EQ(takeLog(), "CTraceQueue: Bad pointer on input of forward() function.\n");
    std::list<CPacket*> entries{none};
    EXPECT_TRUE(queue.forward(entries));
    EXPECT_EQ(queue.peek(), Sync);
    EXPECT_TRUE(queue.good());
    EXPECT_EQ(queue.get(), nullptr);
    EXPECT_FALSE(queue.good());
    EXPECT_EQ(queue.size(), 0U);
}

TEST(TraceQueue, ReleasesWhatIsLeftWhenItIsDestroyed) {
    unsigned released = 0;
    {
        CTraceQueue queue, other;
        std::list<CPacket*> packets{new Counted(released), nullptr, new Counted(released)};
        queue.forward(packets);
        EXPECT_TRUE(other.merge(queue));
        EXPECT_EQ(queue.size(), 0U);
        EXPECT_EQ(released, 0U);
    }
    EXPECT_EQ(released, 2U);
    EXPECT_EQ(takeLog(), "");
}

TEST(TraceQueue, HandsPacketsFromOneThreadToAnother) {
    constexpr unsigned kCount = 20'000;
    CTraceQueue queue;
    std::thread producer([&queue] {
        for (unsigned i = 0; i < kCount; ++i) {
            CPacket* packet = numbered(i);
            if (i % 2 == 0) {
                queue.put(packet);
                CPacketFactory::releaseCPacket(&packet);
            } else {
                queue.forward(packet);
            }
        }
        CPacket* end = CPacketFactory::getCEndOfTrace();
        queue.forward(end);
    });
    Numbers got;
    while (!queue.eot()) {
        CPacket* packet = queue.peek() == Timestamp ? queue.get() : nullptr;
        if (packet) {
            got.push_back(numberOf(packet));
        } else if (queue.peek() == EndOfTrace) {
            packet = queue.get();
        } else {
            queue.clear();
            std::this_thread::yield();
        }
        CPacketFactory::releaseCPacket(&packet);
    }
    producer.join();
    ASSERT_EQ(got.size(), kCount);
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
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
    const Numbers numbers = takeNumbers(packets);
    EXPECT_EQ(numbers.size(), 2 * kCount);
    EXPECT_EQ(std::set(numbers.begin(), numbers.end()).size(), 2 * kCount);
}

TEST(PacketSequence, IsAListThatNeverReleases) {
    unsigned released = 0;
    Counted a(released), b(released), c(released);
    const std::list<CPacket*> all{&a, &b, &c};
    CPacketSequence sequence;
    EXPECT_EQ(sequence.get(), nullptr);
    sequence.pop();
    sequence.push(&b);
    sequence.insert(sequence.begin(), &a);
    sequence.insert(sequence.end(), std::next(all.begin(), 2), all.end());
    const CPacketSequence copy(sequence);
    EXPECT_EQ(std::list<CPacket*>(copy.begin(), copy.end()), all);
    EXPECT_EQ(*sequence.erase(sequence.begin()), &b);
    EXPECT_EQ(sequence.front(), &b);
    EXPECT_EQ(sequence.back(), &c);
    sequence.front() = &a;
    sequence.pop();
    EXPECT_EQ(sequence.erase(sequence.begin(), sequence.end()), sequence.end());
    EXPECT_TRUE(sequence.empty());
    sequence.assign(copy.begin(), copy.end());
    EXPECT_TRUE(sequence.merge(sequence));
    EXPECT_EQ(sequence.size(), 3U);

    std::list<CPacket*> list{nullptr};
    EXPECT_TRUE(sequence.move_to(list));
    EXPECT_FALSE(sequence.move_to(list));
    EXPECT_EQ(list, (std::list<CPacket*>{nullptr, &a, &b, &c}));
    EXPECT_TRUE(sequence.splice(list));
    sequence.clear();
    EXPECT_TRUE(sequence.empty());
    EXPECT_EQ(copy.front(), &a);
    EXPECT_EQ(copy.back(), &c);
    EXPECT_EQ(released, 0U);
}

} // namespace
} // namespace Quorvex::test
