#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

int main(int count, char** arguments) {
    /// What a test leaves in the message log is none of the next one's.
    struct EmptyLog : testing::EmptyTestEventListener {
        void OnTestStart(const testing::TestInfo&) override { Quorvex::test::takeLog(); }
    };
    testing::InitGoogleTest(&count, arguments);
    testing::UnitTest::GetInstance()->listeners().Append(new EmptyLog);
    return RUN_ALL_TESTS();
}
