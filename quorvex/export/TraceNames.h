#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace Quorvex {

/// The names that the define packets of a trace give. Undefine packets take nothing back: what was shown under a name
/// keeps it.
class QUORVEX_API CTraceNames {
public:
    enum class Sort : std::uint8_t {
        Function,
        Process,
        Variable,
        Counter,
        CounterUnit,
        Event,
        Signal,
        StateMachine,
        Instance, ///< of a state machine; the id is that of pair()
        State,    ///< likewise
        Transition
    };

    /// The id of what is numbered within a state machine.
    static constexpr std::uint64_t pair(std::uint32_t machine, std::uint32_t id) {
        return std::uint64_t{machine} << 32 | id;
    }

    /// Takes note of what the packet defines, if anything. False when that had another name before.
    bool note(const CPacket& packet);
    /// The name; empty when none was given.
    const std::string& name(Sort sort, std::uint64_t id) const;
    /// All names given so far.
    const std::map<std::pair<Sort, std::uint64_t>, std::string>& all() const { return m_names; }

private:
    std::map<std::pair<Sort, std::uint64_t>, std::string> m_names;
};

} // namespace Quorvex
