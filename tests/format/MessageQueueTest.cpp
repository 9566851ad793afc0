#include "quorvex/format/MessageQueue.h"

#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Quorvex::test {
namespace {

/// Reports while static objects are built, and while they are destroyed.
struct Early {
    std::string log;
    Early() {
        logError("before main");
        log = takeLog();
    }
    ~Early() { logError("after main"); }
} const g_early;

TEST(MessageLog, TakesReportsBeforeMain) {
    EXPECT_EQ(g_early.log, "before main\n");
}

TEST(MessageLog, HandsMessagesOutInTheOrderTheyCame) {
    CMessageQueue queue;
    EXPECT_EQ(queue.pop(), nullptr);
    EXPECT_TRUE(queue.pop(3).empty());
    for (const char* text : {"a", "b", "c", "d"})
        queue.push(tagEMessageLevel(7), L"origin", text);
    EXPECT_EQ(queue.size(), 4U);
    const auto first = queue.pop();
    EXPECT_EQ(first->Level(), 7) << "other levels pass through";
    EXPECT_TRUE(first->Origin() == ATL::CComBSTR(L"origin"));
    EXPECT_TRUE(queue.pop(0).empty());
    const auto rest = queue.pop(10);
    ASSERT_EQ(rest.size(), 3U);
    EXPECT_TRUE(rest[0]->Message() == ATL::CComBSTR("b"));
    EXPECT_TRUE(rest[2]->Message() == ATL::CComBSTR("d"));
    EXPECT_EQ(queue.size(), 0U);
}

TEST(MessageLog, LosesNothingAmongThreads) {
    constexpr unsigned kEach = 500;
    CMessageQueue queue;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 3; ++i)
        threads.emplace_back([&queue] {
            for (unsigned n = 0; n < kEach; ++n)
                queue.push(MessageLevelError, L"", L"x");
        });
    std::size_t taken = 0;
    while (taken < 3 * kEach)
        taken += queue.pop(7).size();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(queue.size(), 0U);
}

TEST(Messages, AreMadeFromNarrowTextsAndCopied) {
    const auto message = CMessage::create(MessageLevelTrace, "from", "w\xe4hlen");
    EXPECT_TRUE(message->Message() == ATL::CComBSTR(L"w\u00e4hlen"));
    const auto copy = message->create();
    EXPECT_NE(copy->Message().m_str, message->Message().m_str);
    EXPECT_TRUE(copy->Origin() == message->Origin());
    EXPECT_EQ(copy->Level(), MessageLevelTrace);
}

TEST(Bstr, OwnsItsTextThroughCopiesAndMoves) {
    ATL::CComBSTR text(L"abc");
    EXPECT_EQ(text.Length(), 3U);
    EXPECT_EQ(text.ByteLength(), 3 * sizeof(wchar_t));
    ATL::CComBSTR copy(text);
    const ATL::CComBSTR moved(std::move(text));
    EXPECT_EQ(text.m_str, nullptr);
    EXPECT_TRUE(copy == moved);
    const ATL::CComBSTR& self = copy;
    copy = self;
    EXPECT_TRUE(copy == moved);
    copy.Attach(SysAllocStringLen(L"xyz", 2));
    EXPECT_TRUE(copy == ATL::CComBSTR(2, L"xy"));
    const BSTR raw = copy.Detach();
    EXPECT_EQ(SysStringLen(raw), 2U);
    SysFreeString(raw);
    EXPECT_EQ(SysStringByteLen(nullptr), 0U);
    EXPECT_TRUE(ATL::CComBSTR() == copy);
}

TEST(Bstr, RefusesWhatItsLengthCannotTell) {
    EXPECT_EQ(SysAllocStringLen(nullptr, ~0U / sizeof(wchar_t) + 2), nullptr) << "room for one character";
    EXPECT_THROW(ATL::CComBSTR(-1, nullptr), std::bad_alloc);
    try {
        const ATL::CComBSTR text(-1, nullptr);
        FAIL();
    } catch (const ATL::CAtlException& exception) {
        EXPECT_EQ(HRESULT(exception), E_OUTOFMEMORY);
    }
}

} // namespace
} // namespace Quorvex::test
