#include "quorvex/stream/TraceSourceBufferStream.h"

#include "quorvex/platform/Attempt.h"

#include <istream>
#include <mutex>

namespace Quorvex {

namespace {

const std::istream::pos_type kNoPosition(-1);

/// Runs a step on a stream that may be set to throw; what it throws leaves the stream's state as the answer.
template <class Step> void guarded(Step&& step) {
    attempt([&step] {
        step();
        return true;
    });
}

} // namespace

struct CTraceSourceBufferStream::Lock : std::recursive_mutex {};

CTraceSourceBufferStream::CTraceSourceBufferStream(std::istream& stream)
    : m_stream(stream), m_lock(platform::makeOwned<Lock>()) {}

bool CTraceSourceBufferStream::read(char* dst, unsigned count, unsigned& got) {
    const std::lock_guard lock(*m_lock);
    got = 0;
    if (count == 0)
        return true;
    const std::streamoff start = m_stream.good() ? place() : -1;
    guarded([&] { m_stream.read(dst, count); });
    got = static_cast<unsigned>(m_stream.gcount());
    if (start >= 0)
        m_next = start + got;
    return got != 0;
}

bool CTraceSourceBufferStream::read(char* dst, unsigned count, std::uint64_t position, unsigned& got) {
    const std::lock_guard lock(*m_lock);
    got = 0;
    return seek(position) && read(dst, count, got);
}

bool CTraceSourceBufferStream::seek(std::uint64_t position) {
    const std::lock_guard lock(*m_lock);
    guarded([&] {
        const std::istream::pos_type target(static_cast<std::streamoff>(position));
        if (m_stream.tellg() != target && m_stream.seekg(target))
            m_next = target;
    });
    return true;
}

std::int64_t CTraceSourceBufferStream::place() {
    // Not a pos_type: of a call that throws, GCC 12 leaves that half assigned.
    std::streamoff position = -1;
    guarded([&] { position = m_stream.tellg(); });
    return position;
}

std::uint64_t CTraceSourceBufferStream::tell() {
    const std::lock_guard lock(*m_lock);
    const std::streamoff position = place();
    return position < 0 ? 0 : static_cast<std::uint64_t>(position);
}

std::uint64_t CTraceSourceBufferStream::size() {
    const std::lock_guard lock(*m_lock);
    std::streamoff end = -1;
    guarded([&] {
        const std::istream::pos_type current = m_stream.tellg();
        if (current != kNoPosition) {
            end = m_stream.seekg(0, std::ios::end).tellg();
            m_stream.seekg(current);
        } else if (m_stream.eof()) {
            const std::ios::iostate state = m_stream.rdstate();
            m_stream.clear();
            end = m_stream.seekg(0, std::ios::end).tellg();
            m_stream.setstate(state);
        }
    });
    return end < 0 ? 0 : static_cast<std::uint64_t>(end);
}

bool CTraceSourceBufferStream::eof() {
    const std::lock_guard lock(*m_lock);
    return m_stream.eof();
}

bool CTraceSourceBufferStream::good() {
    const std::lock_guard lock(*m_lock);
    return m_stream.good();
}

void CTraceSourceBufferStream::clear() {
    const std::lock_guard lock(*m_lock);
    guarded([&] {
        const bool isElsewhere = m_stream.bad() && m_next >= 0;
        const std::istream::pos_type next(m_next);
        if (!isElsewhere || m_stream.rdbuf()->pubseekpos(next, std::ios::in) == next)
            m_stream.clear();
    });
}

} // namespace Quorvex
