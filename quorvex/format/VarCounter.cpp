#include "quorvex/format/VarCounter.h"

#include "quorvex/format/Exception.h"

#include <algorithm>
#include <cstring>
#include <new>

TVarCounter_t::TVarCounter_t(std::uint64_t value, std::uint8_t len) {
    if (isInline(len)) {
        m_storage.u64 = value;
        m_length = len;
        return;
    }
    std::uint8_t bytes[255] = {};
    std::memcpy(bytes, &value, std::min<std::size_t>(sizeof value, len));
    assign(bytes, len);
}

void TVarCounter_t::clear() {
    if (!isInline(m_length))
        delete[] m_storage.heap;
    m_storage.u64 = 0;
    m_length = 0;
}

void TVarCounter_t::assign(const TVarCounter_t& other) {
    if (this == &other)
        return;
    if (!isInline(other.m_length)) {
        assign(other.m_storage.heap, other.m_length);
        return;
    }
    clear();
    std::memcpy(&m_storage, &other.m_storage, other.m_length);
    m_length = other.m_length;
}

void TVarCounter_t::assign(const std::uint8_t* bytes, std::uint8_t len) {
    std::uint8_t* heap = nullptr;
    if (bytes) {
        heap = new (std::nothrow) std::uint8_t[len];
        if (!heap)
            Quorvex::CQVXException::ThrowOutOfMemory();
        std::memcpy(heap, bytes, len);
    }
    clear();
    if (!heap)
        return;
    m_storage.heap = heap;
    m_length = len;
}

bool TVarCounter_t::equal(const TVarCounter_t& other) const {
    if (m_length != other.m_length)
        return false;
    if (m_length == 0)
        return true;
    const std::uint8_t* mine = data();
    const std::uint8_t* theirs = other.data();
    return mine && theirs && std::memcmp(mine, theirs, m_length) == 0;
}
