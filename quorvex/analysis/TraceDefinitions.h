#pragma once

#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/packets/PacketKinds.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace Quorvex::detail {

/// The definitions of a piece of a trace, and what tells names of threads, as the bytes of a trace.
class TraceDefinitions {
public:
    void note(const CTraceCursor& packet) {
        const KindFacts& facts = factsOf(packet.TraceCode());
        if (facts.role == Role::Definition || (packet.TraceCode() == Timestamp && !m_hasClock) ||
            (packet.TraceCode() == Message && RecordedFact(packet.text()).isName()))
            add(packet);
        else if (facts.isCounterValue)
            count(packet);
    }
    void join(TraceDefinitions&& next) {
        m_bytes += next.m_bytes;
        m_hasClock |= next.m_hasClock;
    }
    const std::string& bytes() const { return m_bytes; }

    /// The number of a counter and the bits of its value; none where these are not 64 bits of whatever type.
    static std::optional<std::pair<std::uint32_t, std::uint64_t>> counterValue(const CTraceCursor& packet) {
        const KindFacts& facts = factsOf(packet.TraceCode());
        const tagTCode kind = absoluteKind(packet.TraceCode());
        if (!facts.isCounterValue || kind == CounterValueVar)
            return std::nullopt;
        const char* const id = packet.payload() + (facts.isRelative ? CRelCoreContext::Len() : CCoreContext::Len());
        return std::pair(loadLittleEndian<std::uint32_t>(id), loadLittleEndian<std::uint64_t>(id + 4));
    }

private:
    void add(const CTraceCursor& packet) {
        const PacketPointer read(packet.packet());
        const auto* const timestamp = packetAs<CTimestamp>(*read);
        if (timestamp && (!timestamp->is_Frequency_valid() || timestamp->Frequency() == 0))
            return;
        m_hasClock |= timestamp != nullptr;
        const PacketPointer made(packet.contexts().absolute(*read));
        CPacket& own = made ? *made : *read;
        const std::size_t before = m_bytes.size();
        m_bytes.resize(before + own.StreamSize());
        own.write(m_bytes.data() + before, own.StreamSize());
    }
    /// Keeps the values that tell something of their counter's type.
    void count(const CTraceCursor& packet) {
        const auto value = counterValue(packet);
        if (!value)
            return;
        CounterSort& sort = m_counters[value->first];
        if (!sort.isNews(value->second))
            return;
        sort.note(value->second);
        add(packet);
    }

    std::string m_bytes;
    Directory<std::uint32_t, CounterSort> m_counters;
    bool m_hasClock = false;
};

} // namespace Quorvex::detail
