#include "quorvex/stream/TraceSinkBufferStream.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/Attempt.h"

#include <ostream>
#include <string>

namespace Quorvex {

bool CTraceSinkBufferStream::write(const char* src, unsigned count, unsigned& written) {
    written = 0;
    if (count == 0)
        return true;
    const auto report = [](const std::exception& exception) {
        logError(std::string("CTraceSinkBufferStream::write:  Catched I/O error during write:") + exception.what());
    };
    if (!attempt([&] { return !m_stream->write(src, count).fail(); }, report))
        return false;
    m_count += count;
    written = count;
    return true;
}

bool CTraceSinkBufferStream::write(const char* src, unsigned count, std::uint64_t position, unsigned& written) {
    written = 0;
    return sink_seek(position) && write(src, count, written);
}

bool CTraceSinkBufferStream::eof() {
    return m_stream->eof();
}

bool CTraceSinkBufferStream::good() {
    return m_stream->good();
}

void CTraceSinkBufferStream::clear() {
    m_stream->clear();
}

void CTraceSinkBufferStream::flush() {
    // The stream's state tells; flush has no result.
    attempt([&] { return m_stream->flush().good(); });
}

std::uint64_t CTraceSinkBufferStream::sink_tell() {
    // Not a pos_type: of a call that throws, GCC 12 leaves that half assigned.
    std::streamoff position = -1;
    attempt([&] { return (position = m_stream->tellp()) >= 0; });
    return position < 0 ? 0 : static_cast<std::uint64_t>(position);
}

bool CTraceSinkBufferStream::sink_seek(std::uint64_t position) {
    if (m_sequential && position == m_count)
        return true;
    const auto move = [&] {
        const std::ostream::pos_type none(-1);
        const std::ostream::pos_type target(static_cast<std::streamoff>(position));
        const std::ostream::pos_type current = m_stream->tellp();
        if (current == none)
            return false;
        if (current == target)
            return true;
        m_sequential = false;
        m_stream->seekp(target);
        if (m_stream->tellp() != none)
            return true;
        logError("CTraceSinkBufferStream::seek(): seek of position" + std::to_string(position) + " failed.");
        return false;
    };
    return attempt(move, [](const std::exception& exception) {
        logError(std::string("CTraceSinkBufferStream::seek(): Catched Exception :") + exception.what());
    });
}

void CTraceSinkBufferStream::restart(std::uint64_t count) {
    m_count = count;
    m_sequential = true;
}

} // namespace Quorvex
