#pragma once

#include <cstdint>

/// Whether the instructions of a trace are listed one by one or follow from its branches.
enum TraceExpansion : unsigned { UnknownExpanded = 0, NotExpanded = 1, Expanded = 2, MixExpanded = 3 };

/// The frame configuration word of a trace-enabled packet: bits 0 and 1 the expansion, bit 2 whether exceptions stand
/// in frames of their own.
struct SFrameConfig {
    SFrameConfig() = default;
    /// Keeps the two low bits of the value.
    SFrameConfig(TraceExpansion expansion) { setExpansion(expansion); }

    static constexpr std::uint8_t Len() { return 4; }

    TraceExpansion getExpansion() const { return TraceExpansion(m_word & kExpansion); }
    void setExpansion(TraceExpansion expansion) {
        m_word = (m_word & ~kExpansion) | (static_cast<std::uint32_t>(expansion) & kExpansion);
    }
    bool getExceptionFrames() const { return (m_word & kExceptionFrames) != 0; }
    void setExceptionFrames(bool on) { m_word = (m_word & ~kExceptionFrames) | (on ? kExceptionFrames : 0); }
    void clear() { m_word = 0; }

    /// The whole word as on the wire; what a trace holds in the other bits is kept.
    std::uint32_t word() const { return m_word; }
    bool operator==(const SFrameConfig&) const = default;

private:
    static constexpr std::uint32_t kExpansion = 3;
    static constexpr std::uint32_t kExceptionFrames = 4;

    std::uint32_t m_word = 0;
};
