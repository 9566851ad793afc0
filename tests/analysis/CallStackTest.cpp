#include "quorvex/analysis/CallStack.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Quorvex::test {
namespace {

TEST(CallStack, TellsHowManyEntriesALeaveEnds) {
    // Enters are capital letters, leaves small ones; behind each, what it gives and the depth: "?" is not entered.
    const std::pair<std::string, std::string> cases[] = {
        {"AaBb", "A1 a1:0 B1 b1:0"},
        {"ABCa", "A1 B2 C3 a3:0"},
        {"AAa", "A1 A2 a1:1"},
        {"aAb", "a?:0 A1 b?:1"},
        {"ABCDdba", "A1 B2 C3 D4! d0:3 b2:1 a1:0"},
    };
    for (const auto& [steps, expected] : cases) {
        CallStack<char> stack(3);
        std::string told;
        for (const char step : steps) {
            told += told.empty() ? "" : " ";
            told += step;
            if (step <= 'Z') {
                const bool isKept = stack.enter([step] { return step; });
                told += std::to_string(stack.depth()) + (isKept ? "" : "!");
                continue;
            }
            const auto count = stack.leave([step](char entered) { return entered == step - 'a' + 'A'; });
            for (std::size_t i = 0; i < count.value_or(0); ++i)
                stack.pop();
            told += (count ? std::to_string(*count) : "?") + ":" + std::to_string(stack.depth());
        }
        EXPECT_EQ(told, expected) << steps;
    }
}

TEST(CallStack, ForgetsTheOutermostWhereTheLastOnesMatter) {
    CallStack<char> stack(3);
    std::string forgotten;
    for (const char step : std::string("ABCDE")) {
        if (const auto outermost = stack.enterLast([step] { return step; }))
            forgotten += *outermost;
    }
    EXPECT_EQ(forgotten, "AB");
    EXPECT_EQ(stack.entries(), (std::vector<char>{'C', 'D', 'E'}));
    EXPECT_EQ(stack.depth(), 3U);
}

} // namespace
} // namespace Quorvex::test
