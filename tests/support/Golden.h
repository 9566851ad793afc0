#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace Quorvex::test {

/// Compares with a file of tests/data. With QUORVEX_REWRITE_GOLDEN set, writes it instead: look at the difference.
inline void expectGolden(const std::string& name, const std::string& text) {
    const std::string path = std::string(QUORVEX_TEST_DATA) + "/" + name;
    if (std::getenv("QUORVEX_REWRITE_GOLDEN")) {
        std::ofstream(path, std::ios::binary) << text;
        return;
    }
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(in), {})) << path;
}

} // namespace Quorvex::test
