#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string_view>
#include <utility>

namespace Quorvex {

/// Gathers text in a buffer of the caller, never beyond its end. A piece goes in whole or not at all, and after one
/// that did not fit nothing goes in until clear(), so that the text has no gaps.
template <class Char> class QUORVEX_TEMPLATE_API CBufferHelper {
public:
    /// A null buffer has room for nothing. The buffer must outlive the helper.
    CBufferHelper(Char* buffer, unsigned size) : m_buffer(buffer), m_size(buffer ? size : 0) {}

    /// Puts a piece behind the text; whether all pieces have fitted so far.
    bool append(Char character) { return append({&character, 1}); }
    bool append(std::basic_string_view<Char> text) {
        if (Char* to = claim(text.size()))
            text.copy(to, text.size());
        return !m_overflowed;
    }
    /// The next `count` characters, for the caller to fill in; null when they do not fit.
    Char* claim(std::uint64_t count) {
        m_overflowed = m_overflowed || count > m_size - m_count;
        return m_overflowed ? nullptr : m_buffer + std::exchange(m_count, m_count + static_cast<unsigned>(count));
    }
    /// Begins again with an empty text.
    void clear() {
        m_count = 0;
        m_overflowed = false;
    }

    std::basic_string_view<Char> text() const { return {m_buffer, m_count}; } ///< valid as long as the buffer
    unsigned remain() const { return m_overflowed ? 0 : m_size - m_count; }   ///< characters that still go in
    bool overflowed() const { return m_overflowed; }                          ///< a piece did not fit

private:
    Char* m_buffer;
    unsigned m_size;
    unsigned m_count = 0;
    bool m_overflowed = false;
};

} // namespace Quorvex
