#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace Quorvex::test {

/// A directory of its own for a test, gone with all files at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::random_device random;
        do {
            m_path = std::filesystem::temp_directory_path() / ("quorvex_" + std::to_string(random()));
        } while (!std::filesystem::create_directory(m_path)); // one of that name is another test's
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }
    std::string path(const std::string& file) const { return (m_path / file).string(); }
    std::string content(const std::string& file) const {
        std::ifstream in(m_path / file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::filesystem::path m_path;
};

} // namespace Quorvex::test
