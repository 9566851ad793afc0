#include "quorvex/stream/TraceSinkBufferFile.h"

#include "quorvex/platform/System.h"

#include <cerrno>
#include <fstream>

namespace Quorvex {

detail::OutputFile::OutputFile() : m_file(platform::makeOwned<std::ofstream>()) {}

detail::OutputFile::~OutputFile() = default;

std::ostream& detail::OutputFile::stream() const {
    return *m_file;
}

CTraceSinkBufferFile::~CTraceSinkBufferFile() = default;

bool CTraceSinkBufferFile::is_open() const {
    return m_file->is_open();
}

bool CTraceSinkBufferFile::open(const char* path, bool append) {
    if (!path)
        return false;
    close();
    m_file->clear();
    errno = 0;
    if (append) {
        // Reading rights are asked for because a file opened for writing alone would be emptied.
        m_file->open(path, std::ios::in | std::ios::out | std::ios::binary);
        if (m_file->is_open()) {
            m_file->seekp(0, std::ios::end);
            restart(sink_tell());
            m_error = 0;
            return true;
        }
        m_file->clear();
        if (errno != ENOENT) { // an existing file that cannot be appended to must not be emptied
            m_error = platform::openError(path);
            m_file->setstate(std::ios::failbit);
            return false;
        }
    }
    m_file->open(path, std::ios::out | std::ios::binary | std::ios::trunc);
    restart(0);
    m_error = m_file->is_open() ? 0 : platform::openError(path);
    return m_file->is_open();
}

/// Takes note of why a step fails: where the close is told of it, the system no longer says.
template <class Step> bool CTraceSinkBufferFile::noting(Step&& step) {
    errno = 0;
    if (step())
        return true;
    if (errno != 0)
        m_error = errno;
    return false;
}

bool CTraceSinkBufferFile::close() {
    if (!m_file->is_open())
        return true;
    errno = 0;
    m_file->close();
    if (m_file->fail() && (errno != 0 || m_error == 0))
        m_error = errno != 0 ? errno : EIO;
    return !m_file->is_open();
}

bool CTraceSinkBufferFile::write(const char* src, unsigned count, unsigned& written) {
    return noting([&] { return CTraceSinkBufferStream::write(src, count, written); });
}

void CTraceSinkBufferFile::flush() {
    noting([&] {
        CTraceSinkBufferStream::flush();
        return good();
    });
}

} // namespace Quorvex
