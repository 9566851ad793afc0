#include "quorvex/stream/TraceSourceBufferFile.h"

#include "quorvex/platform/System.h"
#include "quorvex/stream/PageFile.h"

#include <cerrno>
#include <fstream>

namespace Quorvex {

detail::InputFile::InputFile() : m_file(platform::makeOwned<std::ifstream>()) {}

detail::InputFile::~InputFile() = default;

std::istream& detail::InputFile::stream() const {
    return *m_file;
}

CTraceSourceBufferFile::~CTraceSourceBufferFile() = default;

bool CTraceSourceBufferFile::is_open() const {
    return m_file->is_open();
}

bool CTraceSourceBufferFile::open(const char* path) {
    if (!path)
        return false;
    close();
    m_file->clear();
    errno = 0;
    m_file->open(path, std::ios::in | std::ios::binary);
    // A directory opens, but cannot be read.
    if (m_file->is_open() && m_file->peek() == std::ifstream::traits_type::eof() && !m_file->eof())
        m_file->close();
    m_error = m_file->is_open() ? 0 : platform::openError(path);
    if (!m_file->is_open()) {
        m_file->setstate(std::ios::failbit);
        return false;
    }
    m_file->clear();
    m_file->seekg(0);
    m_joined = platform::Owned<std::streambuf>(detail::joinPageFile(*m_file, path).release());
    if (m_joined)
        m_file->std::ios::rdbuf(m_joined.get());
    return true;
}

bool CTraceSourceBufferFile::close() {
    if (!m_file->is_open())
        return true;
    m_file->std::ios::rdbuf(m_file->rdbuf());
    m_joined.reset();
    m_file->close();
    return !m_file->is_open();
}

} // namespace Quorvex
