#include "quorvex/stream/TraceSourceBufferCom.h"

#include "quorvex/format/MessageQueue.h"

#include <algorithm>
#include <string>

namespace Quorvex {

bool CTraceSourceBufferCom::read(char* dst, unsigned count, unsigned& got) {
    const std::lock_guard lock(m_lock);
    got = 0;
    if (!good())
        return false;
    if (count == 0)
        return true;
    unsigned taken = 0;
    if (take(dst, count, taken))
        got = std::min(taken, count); // a stream that claims more must not lead readers out of their block
    return got != 0;
}

bool CTraceSourceBufferCom::read(char* dst, unsigned count, std::uint64_t position, unsigned& got) {
    const std::lock_guard lock(m_lock);
    got = 0;
    std::uint64_t current = 0;
    return ((tell(current) && current == position) || seek(position)) && read(dst, count, got);
}

bool CTraceSourceBufferCom::measure(std::uint64_t& position, std::uint64_t& size) {
    if (!tell(position))
        return false;
    const bool measured = seekEnd(size);
    if (!seek(position)) {
        logError(std::string(m_name) +
                 "::size(): Could not rewind input stream to current position. Stream might be corrupted.");
    }
    return measured;
}

bool CTraceSourceBufferCom::eof() {
    const std::lock_guard lock(m_lock);
    std::uint64_t position = 0;
    std::uint64_t size = 0;
    return !measure(position, size) || position == size;
}

std::uint64_t CTraceSourceBufferCom::position() {
    const std::lock_guard lock(m_lock);
    std::uint64_t position = 0;
    return tell(position) ? position : 0;
}

std::uint64_t CTraceSourceBufferCom::size() {
    const std::lock_guard lock(m_lock);
    std::uint64_t position = 0;
    std::uint64_t size = 0;
    return measure(position, size) ? size : 0;
}

} // namespace Quorvex
