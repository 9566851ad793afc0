#pragma once

#include "quorvex/analysis/TraceState.h"
#include "quorvex/format/Fields.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Quorvex {
class CTraceCursor;
}

namespace qvx {

/// Finds what pieces of a trace begin with only because it holds there since an earlier piece: enters and values. A
/// packet is restated when it stands in front of all that its trace tells by itself, holds in just those bytes at the
/// end of another trace, and what its trace tells by itself begins no earlier than that one ends.
class Pieces {
public:
    Pieces() : m_state(Quorvex::TraceState::Start::OfTrace) {}

    /// Told all packets of a trace, and of its end; one trace after the other.
    void note(const Quorvex::CTraceCursor& packet);
    void endTrace();
    /// To be called when all have been told.
    void compare();
    /// Whether the packet at that place is restated.
    bool restates(std::size_t trace, std::uint64_t offset) const;

private:
    struct Trace {
        std::vector<std::pair<std::uint64_t, std::string>> front; ///< packets by offset; their bytes until compare()
        std::uint64_t first = Quorvex::kUnknown64;                ///< tick behind the front
    };
    /// A trace at whose end something holds, and when that is.
    struct End {
        std::uint64_t tick = Quorvex::kUnknown64;
        std::size_t trace = 0;
    };

    void noteInFront(const Quorvex::CTraceCursor& packet);
    std::size_t held() const;

    std::vector<Trace> m_traces;
    Trace m_trace;                ///< that is told
    Quorvex::TraceState m_state;  ///< there
    bool m_isInFront = true;      ///< so far
    std::uint64_t m_lastTick = 0; ///< of what has happened there
    /// The two traces that end first with a packet, by its bytes; of equal ones in a trace, by their number.
    std::unordered_map<std::string, std::array<End, 2>> m_held;
};

} // namespace qvx
