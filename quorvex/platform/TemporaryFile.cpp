#include "quorvex/platform/TemporaryFile.h"

#include "quorvex/platform/System.h"

#include <filesystem>
#include <string>
#include <system_error>

namespace Quorvex::platform {

namespace {

std::string directory() {
    const std::string named = temporaryDirectory();
    std::error_code error;
    return named.empty() ? std::filesystem::temp_directory_path(error).string() : named;
}

} // namespace

bool TemporaryFile::write(const char* bytes, std::size_t size) {
    if (size == 0 || !m_good)
        return m_good;
    if (!m_file.is_open() && m_file.create(directory()))
        m_file.unname();
    m_good = m_file.is_open() && m_file.write(bytes, size);
    return m_good;
}

bool TemporaryFile::seek(std::uint64_t position) {
    m_good = m_good && (!m_file.is_open() || m_file.seek(position));
    return m_good;
}

std::size_t TemporaryFile::read(char* bytes, std::size_t size) {
    if (!m_file.is_open() || !m_good)
        return 0;
    const std::size_t got = m_file.read(bytes, size);
    m_good = m_file.error() == 0;
    return got;
}

} // namespace Quorvex::platform
