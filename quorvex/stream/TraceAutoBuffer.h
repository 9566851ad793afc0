#pragma once

#include "quorvex/format/Exception.h"

#include <cstring>
#include <new>

namespace Quorvex {

/// Bytes of the blocks in which all readers and writers work.
inline constexpr unsigned kBlockSize = 0x40000;

/// A zeroed heap block. Throws the out-of-memory CQVXException.
class CTraceAutoBuffer {
public:
    CTraceAutoBuffer() : m_block(new (std::nothrow) char[kBlockSize]()) {
        if (!m_block)
            CQVXException::ThrowOutOfMemory();
    }
    CTraceAutoBuffer(const CTraceAutoBuffer& other) : CTraceAutoBuffer() { *this = other; }
    CTraceAutoBuffer& operator=(const CTraceAutoBuffer& other) {
        if (this != &other)
            std::memcpy(m_block, other.m_block, kBlockSize);
        return *this;
    }
    ~CTraceAutoBuffer() {
        delete[] m_block;
        m_block = nullptr;
    }

    static constexpr unsigned size() { return kBlockSize; }
    void clear() { std::memset(m_block, 0, kBlockSize); }

    operator char*() { return m_block; }
    operator const char*() const { return m_block; }
    char* operator->() { return m_block; }
    char** operator&() { return &m_block; }
    char* operator+(unsigned offset) { return m_block + offset; }

private:
    char* m_block;
};

} // namespace Quorvex
