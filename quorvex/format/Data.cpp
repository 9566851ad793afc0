#include "quorvex/format/Data.h"

#include "quorvex/format/Exception.h"
#include "quorvex/platform/Attempt.h"
#include "quorvex/platform/FreeList.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <new>
#include <ostream>

namespace Quorvex {

CData::CData(const std::uint8_t* bytes, std::uint8_t len) {
    if (!assign(bytes, len))
        CQVXException::ThrowRuntime("CData input length exceeds maximum value!");
}

void CData::clear() {
    if (!isInline(m_length))
        platform::giveBlock(m_storage.heap, m_length);
    m_storage.u64 = 0;
    m_length = 0;
}

bool CData::ensure_size(std::uint8_t len) {
    if (len > kMaxLength)
        return false;
    clear();
    m_storage.heap = static_cast<std::uint8_t*>(platform::takeBlock(len, std::nothrow));
    if (!m_storage.heap)
        CQVXException::ThrowOutOfMemory();
    m_length = len;
    return true;
}

void CData::copy(const CData& other) {
    clear();
    if (isInline(other.m_length)) {
        m_storage.u64 = other.m_storage.u64;
        m_length = other.m_length;
    } else {
        copy_in(other.m_storage.heap, other.m_length);
    }
}

bool CData::copy_in(const std::uint8_t* bytes, std::uint8_t len) {
    if (!ensure_size(len))
        return false;
    std::memcpy(m_storage.heap, bytes, len);
    return true;
}

bool CData::copy_out(std::uint8_t* bytes, std::uint8_t size, std::uint8_t& written) const {
    if (!bytes || m_length > LenLimited(size))
        return false;
    std::memcpy(bytes, data(), m_length);
    written = m_length;
    return true;
}

bool CData::read_in(const std::uint8_t* bytes, std::uint8_t len) {
    if (!ensure_size(len))
        return false;
    std::reverse_copy(bytes, bytes + len, m_storage.heap);
    return true;
}

bool CData::write_out(std::uint8_t* bytes, std::uint8_t size, std::uint8_t& written) const {
    if (!bytes || m_length > LenLimited(size))
        return false;
    std::reverse_copy(m_storage.heap, m_storage.heap + m_length, bytes);
    written = m_length;
    return true;
}

bool CData::assign(std::uint64_t value, std::uint8_t len) {
    std::uint8_t bytes[kMaxLength] = {};
    if (len > kMaxLength) {
        clear();
        return false;
    }
    std::memcpy(bytes, &value, sizeof value);
    return assign(bytes, len);
}

bool CData::assign(const std::uint8_t* bytes, std::uint8_t len) {
    // The bytes may be this value's own: they are saved before the value is cleared.
    std::uint8_t saved[kMaxLength];
    const bool usable = bytes && len <= kMaxLength;
    if (usable)
        std::memcpy(saved, bytes, len);
    clear();
    if (!usable)
        return false;
    if (!isInline(len))
        return copy_in(saved, len);
    std::memcpy(&m_storage, saved, len);
    m_length = len;
    return true;
}

bool CData::CopyTo(std::uint64_t& value, std::uint8_t& len) const {
    if (!isInline(m_length))
        return false;
    value = m_storage.u64;
    len = m_length;
    return true;
}

bool CData::read(std::istream& in, std::uint8_t len) {
    clear();
    return len == 0 || attempt([&] {
               char bytes[kMaxLength];
               unsigned consumed = 0;
               return in.read(bytes, LenLimited(len)) && read(bytes, LenLimited(len), len, consumed);
           });
}

bool CData::read(const char* buf, unsigned size, std::uint8_t len, unsigned& consumed) {
    clear();
    if (isInline(len)) {
        std::memcpy(&m_storage, buf, len);
        m_length = len;
    } else if (size < len || !read_in(reinterpret_cast<const std::uint8_t*>(buf), len)) {
        return false;
    }
    consumed = len;
    return true;
}

bool CData::write(std::ostream& out) const {
    char bytes[kMaxLength];
    unsigned written = 0;
    write(bytes, sizeof bytes, written);
    return written == 0 || attempt([&] { return out.write(bytes, written).good(); });
}

bool CData::write(char* buf, unsigned size, unsigned& written) const {
    if (m_length == 0)
        return true;
    if (isInline(m_length)) {
        std::memcpy(buf, &m_storage, m_length);
        written = m_length;
        return true;
    }
    std::uint8_t count = 0;
    if (!write_out(reinterpret_cast<std::uint8_t*>(buf), LenLimited(size), count))
        return false;
    written = count;
    return true;
}

bool CData::operator==(const CData& other) const {
    if (m_length != other.m_length)
        return false;
    // For heap-held values this compares the buffers' identity, which is the meaning of equality for them.
    if (m_length == sizeof(std::uint64_t) || !isInline(m_length))
        return m_storage.u64 == other.m_storage.u64;
    return m_storage.u32 == other.m_storage.u32;
}

} // namespace Quorvex
