#include "quorvex/stream/TraceSourceBufferMapped.h"

#include "quorvex/stream/PageFile.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <limits>

namespace Quorvex {

CTraceSourceBufferMapped::CTraceSourceBufferMapped() = default;

CTraceSourceBufferMapped::~CTraceSourceBufferMapped() = default;

bool CTraceSourceBufferMapped::open(const char* path) {
    if (!path)
        return false;
    m_state.clear();
    m_position = 0;
    m_error = m_file.open(path);
    if (m_error == 0) {
        std::ifstream trace(path, std::ios::binary);
        if (detail::joinPageFile(trace, path)) {
            m_file.close();
            m_error = EBUSY;
        }
    }
    if (m_error != 0)
        m_state.setstate(CTraceBufferState::failbit);
    return m_error == 0;
}

bool CTraceSourceBufferMapped::close() {
    m_file.close();
    return true;
}

void CTraceSourceBufferMapped::release(std::uint64_t from, std::uint64_t to) const {
    const std::uint64_t end = m_file.mapped();
    m_file.release(static_cast<std::size_t>(std::min(from, end)), static_cast<std::size_t>(std::min(to, end)));
}

bool CTraceSourceBufferMapped::read(char* dst, unsigned count, unsigned& got) {
    got = 0;
    if (count == 0)
        return true;
    int error = m_state.good() && m_file.isOpen() ? 0 : EBADF;
    unsigned taken = 1;
    while (error == 0 && taken > 0 && got < count) {
        error = m_file.read(dst + got, count - got, m_position, taken);
        got += taken;
        m_position += taken;
    }
    if (!m_state.good())
        m_state.setstate(CTraceBufferState::failbit);
    else if (error != 0 && m_file.isOpen())
        m_state.setstate(CTraceBufferState::badbit);
    else if (got < count)
        m_state.setstate(CTraceBufferState::eofbit | CTraceBufferState::failbit);
    return got != 0;
}

bool CTraceSourceBufferMapped::read(char* dst, unsigned count, std::uint64_t position, unsigned& got) {
    seek(position);
    return read(dst, count, got);
}

void CTraceSourceBufferMapped::seek(std::uint64_t position) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
    if (!m_state.fail() && position <= kMost && m_file.isOpen()) {
        m_position = position;
        return;
    }
    // As a stream does: the end is left, a failure is not.
    const int left = m_state.rdstate() & ~CTraceBufferState::eofbit;
    m_state.clear();
    m_state.setstate(left | CTraceBufferState::failbit);
}

std::uint64_t CTraceSourceBufferMapped::size() {
    std::uint64_t bytes = 0;
    if ((m_state.fail() && !m_state.eof()) || !m_file.isOpen() || m_file.size(bytes) != 0)
        return 0;
    if (m_state.eof()) // a stream that has failed there goes to the real end to see it
        m_position = bytes;
    return bytes;
}

} // namespace Quorvex
