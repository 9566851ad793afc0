#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/System.h"

namespace Quorvex {

/// The error state of a byte buffer, with the bits of a stream's. A destroyed state never reads as good.
class QUORVEX_API CTraceBufferState {
public:
    /// Bits, as those of a standard stream.
    enum State : int {
        goodbit = 0,
        eofbit = 1,
        failbit = 2,
        badbit = 4 ///< cannot be recovered from
    };

    CTraceBufferState() = default;
    CTraceBufferState(const CTraceBufferState&) = default;
    CTraceBufferState& operator=(const CTraceBufferState&) = default;
    ~CTraceBufferState() {
        platform::overwrite(&m_state, 0, sizeof m_state);
        platform::overwrite(&m_state, eofbit, 1);
    }

    /// Adds bits; 0 clears them all.
    void setstate(int state) { m_state = state ? m_state | state : goodbit; }
    int rdstate() const { return m_state; }
    void clear() { m_state = goodbit; }
    bool good() const { return m_state == goodbit; }
    bool eof() const { return (m_state & eofbit) != 0; }
    bool fail() const { return (m_state & (failbit | badbit)) != 0; }
    bool bad() const { return (m_state & badbit) != 0; }

private:
    int m_state = goodbit;
};

} // namespace Quorvex
