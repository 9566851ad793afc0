#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Quorvex::test {

/// A directory of its own for a test, gone with all files at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory();

    const std::filesystem::path& path() const { return m_path; }
    std::string path(const std::string& file) const { return (m_path / file).string(); }
    /// The names of the files that end so, sorted.
    std::vector<std::string> files(const std::string& extension) const;
    std::string content(const std::string& file) const;
    /// Writes a file, or another in its place, and gives its path.
    std::string write(const std::string& file, const std::string& content) const;

private:
    std::filesystem::path m_path;
};

/// The bytes of a file; none where there is no file.
std::string contentOf(const std::filesystem::path& path);

} // namespace Quorvex::test
