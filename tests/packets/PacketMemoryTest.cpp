// Where the memory of packets comes from and goes to, in a program whose allocator counts and can be short of memory.

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/platform/FreeList.h"
#include "quorvex/stream/TraceQueue.h"
#include "tests/support/Doubles.h"
#include "tests/support/System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <thread>

namespace {
std::atomic<unsigned> g_taken{0};   ///< blocks that the program was asked for
std::atomic<unsigned> g_out{0};     ///< and has not got back
std::atomic<bool> g_isShort{false}; ///< there are no more
} // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = g_isShort ? nullptr : std::malloc(size);
    if (!block)
        throw std::bad_alloc();
    ++g_taken;
    ++g_out;
    return block;
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    g_out -= block ? 1 : 0;
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

namespace Quorvex::test {
namespace {

using platform::kKeepsFreed;
using Packets = std::vector<CPacket*>;

/// Runs on a thread that keeps nothing yet.
template <class Work> void onThread(Work&& work) {
    std::thread(work).join();
}

void fill(Packets& packets) {
    for (CPacket*& packet : packets)
        packet = new CFunctionEnter(CCoreContext(1, 2, 3, 4), 5);
}

void release(Packets& packets) {
    for (CPacket*& packet : packets)
        CPacketFactory::releaseCPacket(&packet);
}

TEST(PacketMemory, IsTakenAgainByTheThreadThatGaveItBackAndGoesWithIt) {
    Packets packets(1000);
    const unsigned before = g_out;
    onThread([&] {
        fill(packets);
        const unsigned made = g_taken;
        release(packets);
        fill(packets);
        EXPECT_EQ(g_taken - made, kKeepsFreed ? 1U : 1000U) << "the lists themselves";
        const unsigned out = g_out;
        release(packets);
        EXPECT_EQ(out - g_out, kKeepsFreed ? 0U : 1000U);
    });
    EXPECT_EQ(g_out, before);
}

TEST(PacketMemory, IsKeptUpToABoundByAThreadThatReleasesWhatOthersMake) {
    constexpr std::size_t kSize = (sizeof(CFunctionEnter) + 15) / 16 * 16;
    constexpr std::size_t kMost = platform::kMostKept / kSize;
    Packets packets(kMost * 2);
    onThread([&] {
        fill(packets);
        const unsigned before = g_out;
        onThread([&] {
            const unsigned out = g_out;
            release(packets);
            EXPECT_EQ(out - g_out, kKeepsFreed ? kMost - 1 : kMost * 2) << "but for the lists themselves";
        });
        EXPECT_EQ(before - g_out, kMost * 2);
    });
}

TEST(PacketMemory, HasOneOwnerHoweverPacketsGoBetweenThreads) {
    unsigned before = 0;
    for (unsigned round = 0; round < 2; ++round) { // the first one also makes what stays
        takeLog();
        before = g_out;
        CTraceQueue there, back;
        // Each of two threads makes packets of all sizes, and releases those of the other.
        const auto work = [](CTraceQueue& out, CTraceQueue& in) {
            RandomPackets random(7);
            std::string sent, got;
            const auto take = [&] {
                const PacketPointer packet(in.get());
                got += packet ? wireOf(*packet) : "";
                return packet != nullptr;
            };
            for (unsigned i = 0; i < 10'000; ++i) {
                CPacket* packet = random.packet().release();
                sent += wireOf(*packet);
                out.forward(packet);
                take();
            }
            while (got.size() < sent.size()) {
                if (!take())
                    std::this_thread::yield();
            }
            EXPECT_TRUE(got == sent);
        };
        std::thread other([&] { work(back, there); });
        onThread([&] { work(there, back); });
        other.join();
    }
    takeLog(); // of the packets that could not be made
    EXPECT_EQ(g_out, before);
}

TEST(PacketMemory, GoesPastTheListsOnceTheyAreGone) {
    static Packets packets;
    packets.resize(10);
    const unsigned before = g_out;
    bool isTold = false;
    onThread([&isTold] {
        fill(packets);
        release(packets);
        fill(packets);
        isTold = atThreadEnd([] {
            release(packets);
            fill(packets);
            release(packets);
        });
    });
    if (!isTold)
        release(packets);
    EXPECT_EQ(g_out, before);
}

struct HostPacket : CExecInsn {
    virtual std::span<unsigned char> more() = 0;
};

template <std::size_t kBytes> struct Sized : HostPacket {
    unsigned char bytes[kBytes];
    std::span<unsigned char> more() override { return bytes; }
};

bool isAligned(const void* object, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(object) % alignment == 0;
}

template <std::size_t... kSteps> void takeSizes(std::index_sequence<kSteps...>) {
    const std::unique_ptr<HostPacket> all[] = {std::unique_ptr<HostPacket>(new Sized<kSteps * 9 + 1>)...};
    for (const auto& each : all) {
        EXPECT_TRUE(isAligned(each.get(), __STDCPP_DEFAULT_NEW_ALIGNMENT__));
        std::ranges::fill(each->more(), static_cast<unsigned char>(each->more().size()));
    }
    for (const auto& each : all)
        EXPECT_EQ(std::ranges::count(each->more(), static_cast<unsigned char>(each->more().size())),
                  std::ssize(each->more()));
}

TEST(PacketMemory, FitsClassesOfHostsOfAnySizeAndAlignment) {
    struct alignas(128) Aligned : CExecInsn {};
    const unsigned before = g_out;
    onThread([] {
        for (unsigned round = 0; round < 2; ++round) { // the second one out of the lists
            takeSizes(std::make_index_sequence<80>());
            const PacketPointer aligned(new Aligned);
            const PacketPointer other(new (std::nothrow) Aligned);
            EXPECT_TRUE(isAligned(aligned.get(), 128) && isAligned(other.get(), 128));
            const std::unique_ptr<CExecInsn[]> several(new CExecInsn[3]);
            alignas(CExecInsn) char place[sizeof(CExecInsn)];
            CExecInsn* const placed = new (place) CExecInsn;
            EXPECT_EQ(static_cast<void*>(placed), place);
            placed->~CExecInsn();
        }
    });
    EXPECT_EQ(g_out, before);
}

TEST(PacketMemory, IsMissedWithTheLibrarysOwnException) {
    /// A host that brings an allocator of its own.
    struct Own : CExecInsn {
        static void* operator new(std::size_t) { throw std::bad_alloc(); }
        static void operator delete(void*) {}
    };
    const std::uint8_t odd[] = {1, 2, 3};
    CCharStringSequence text("kept");
    const std::function<void()> steps[] = {
        [] { CPacketFactory::getCPacket(ExecInsn); },
        [] { CPacketFactory::getCExecInsn(CCoreContext()); },
        [] { CPacketFactory::make<Own>(); },
        [&odd] { CData(odd, 3); },
        [&text] { text += text; },
        [&text] { text.read("~\3new", 5); },
    };
    constexpr std::string_view kText = "There is not enough memory available.";
    unsigned told = 0;
    onThread([&] {
        g_isShort = true;
        for (const auto& step : steps) {
            try {
                step();
            } catch (const CQVXException& exception) {
                told += exception.what() == kText ? 1 : 0;
            }
        }
        told += new (std::nothrow) CExecInsn ? 0 : 1;
        g_isShort = false;
    });
    EXPECT_EQ(told, std::size(steps) + 1);
    EXPECT_EQ(text.view(), "kept");
}

TEST(PacketMemory, ServesDataNamesAndListsToo) {
    std::string trace;
    const std::uint8_t odd[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    for (unsigned i = 0; i < 1000; ++i) {
        CVariableWrite access(CCoreContext(i, 1, 2, 3), 4, CData(odd, sizeof odd));
        CFunctionDefine definition(CCoreContext(i, 1, 2, 3), i, "a name of a function");
        CRelExecInsn step(1, 2);
        trace += wireOf(access) + wireOf(definition) + wireOf(step);
    }
    onThread([&trace] {
        unsigned taken = 0;
        for (unsigned round = 0; round < 3; ++round) {
            MemorySource source(trace);
            CTraceReaderPlain reader(source);
            std::list<CPacket*> packets;
            taken = g_taken;
            EXPECT_TRUE(reader.get(packets));
            EXPECT_EQ(packets.size(), 3000U);
            CPacketFactory::release(packets);
            taken = g_taken - taken;
        }
        EXPECT_EQ(taken, kKeepsFreed ? 0U : 8000U) << "packets, their nodes, data and names";
    });
}

TEST(PacketMemory, ServesListsOfAnyLengthBehindWhatTheyHold) {
    /// Whose thread gives lists back while it reads.
    struct Source : MemorySource {
        using MemorySource::MemorySource;
        bool read(char* dst, unsigned count, unsigned& got) override {
            CPacketFactory::release(m_other);
            return MemorySource::read(dst, count, got);
        }
        std::list<CPacket*> m_other = std::list<CPacket*>(3);
    };
    constexpr std::pair<std::size_t, unsigned> kHeldAndRead[] = {{0, 100}, {5, 10}, {0, 90},
                                                                 {3, 200}, {1, 0},  {0, 101}};
    onThread([&] {
        for (unsigned round = 0; round < 2; ++round) {
            for (const auto& [held, read] : kHeldAndRead) {
                std::string trace;
                for (unsigned i = 0; i < read; ++i)
                    trace += wireOf(*PacketPointer(new CRelExecInsn(static_cast<std::uint8_t>(i), 2)));
                Source source(trace);
                CTraceReaderPlain reader(source);
                std::list<CPacket*> packets(held);
                const unsigned before = g_taken;
                EXPECT_EQ(reader.get(packets), held + read > 0);
                EXPECT_TRUE(!kKeepsFreed || round == 0 || g_taken == before) << "the first one has left enough";
                EXPECT_EQ(packets.size(), held + read);
                std::string got;
                for (CPacket* packet : packets)
                    got += packet ? wireOf(*packet) : "-";
                EXPECT_EQ(got, std::string(held, '-') + trace);
                CPacketFactory::release(packets);
            }
        }
    });
}

TEST(PacketMemory, LosesNoPacketWhereAListHasNoRoomForIt) {
    CRelExecInsn step(1, 2);
    std::string trace;
    for (unsigned i = 0; i < 10; ++i)
        trace += wireOf(step);
    onThread([&trace] {
        MemorySource source(trace);
        CTraceReaderPlain reader(source);
        PacketPointer(reader.get()).reset(); // its memory is kept for the next one
        std::list<CPacket*> packets;
        bool isTold = false;
        g_isShort = true;
        try {
            reader.get(packets);
        } catch (const std::exception&) {
            isTold = true;
        }
        g_isShort = false;
        EXPECT_TRUE(isTold);
        EXPECT_TRUE(reader.get(packets));
        EXPECT_EQ(packets.size(), 9U);
        CPacketFactory::release(packets);
    });
}

/// Is released when all else is gone.
const PacketPointer g_last(new CExecInsn);

} // namespace
} // namespace Quorvex::test
