#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>

namespace Quorvex::test {

TemporaryDirectory::TemporaryDirectory() {
    std::random_device random;
    do {
        m_path = std::filesystem::temp_directory_path() / ("quorvex_" + std::to_string(random()));
    } while (!std::filesystem::create_directory(m_path)); // one of that name is another test's
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> TemporaryDirectory::files(const std::string& extension) const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
        if (entry.path().extension() == extension)
            names.push_back(entry.path().filename().string());
    }
    std::ranges::sort(names);
    return names;
}

std::string TemporaryDirectory::content(const std::string& file) const {
    return contentOf(m_path / file);
}

std::string TemporaryDirectory::write(const std::string& file, const std::string& content) const {
    std::ofstream(m_path / file, std::ios::binary) << content;
    return path(file);
}

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace Quorvex::test
