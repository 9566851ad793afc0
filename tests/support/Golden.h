#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace Quorvex::test {

/// Compares with a file of tests/data. With QUORVEX_REWRITE_GOLDEN set, writes it instead: look at the difference.
inline void expectGolden(const std::string& name, const std::string& text) {
    const std::string path = std::string(QUORVEX_TEST_DATA) + "/" + name;
    if (std::getenv("QUORVEX_REWRITE_GOLDEN")) {
        std::ofstream(path, std::ios::binary) << text;
        return;
    }
    EXPECT_EQ(text, contentOf(path)) << path;
}

} // namespace Quorvex::test
