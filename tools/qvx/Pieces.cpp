#include "Pieces.h"

#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/TraceCursor.h"

#include <algorithm>
#include <bit>
#include <string_view>

namespace qvx {

using namespace Quorvex;

namespace {

/// A front with more packets is none.
constexpr std::size_t kMostInFront = 0x20000;

Role roleOf(std::string_view packet) {
    return factsOf(tagTCode(static_cast<unsigned char>(packet[0]))).role;
}

/// Tells packets that are equal apart by their order.
class Numbered {
public:
    std::string operator()(std::string_view packet) {
        std::string key(packet);
        return key + std::to_string(m_counts[key]++);
    }

private:
    std::unordered_map<std::string, std::size_t> m_counts;
};

} // namespace

void Pieces::note(const CTraceCursor& packet) {
    m_state.note(packet);
    const Role role = factsOf(packet.TraceCode()).role;
    if (role == Role::Structure || role == Role::Definition)
        return;
    if (m_isInFront)
        noteInFront(packet);
    const std::uint64_t tick = packet.tick();
    if (tick == kUnknown64)
        return;
    m_lastTick = tick;
    if (!m_isInFront && m_trace.first == kUnknown64)
        m_trace.first = tick;
}

void Pieces::noteInFront(const CTraceCursor& packet) {
    TraceState alone(TraceState::Start::OfTrace);
    alone.note(packet);
    const std::size_t before = m_trace.front.size();
    alone.eachPacket([&](std::string_view its) { m_trace.front.emplace_back(packet.offset(), its); });
    const std::size_t count = m_trace.front.size();
    // All of a front holds where it ends. To see late that it has ended does no harm.
    constexpr std::size_t kFew = 64;
    const bool isOver =
        count == before || count >= kMostInFront || ((count <= kFew || std::has_single_bit(count)) && held() < count);
    m_isInFront = !isOver;
}

std::size_t Pieces::held() const {
    std::size_t count = 0;
    m_state.eachPacket([&](std::string_view its) { count += roleOf(its) == Role::Happening; });
    return count;
}

void Pieces::endTrace() {
    Numbered numbered;
    m_state.eachPacket([&](std::string_view its) {
        if (roleOf(its) != Role::Happening)
            return;
        auto& ends = m_held[numbered(its)];
        const End end{m_lastTick, m_traces.size()};
        if (end.tick < ends[0].tick)
            ends = {end, ends[0]};
        else if (end.tick < ends[1].tick)
            ends[1] = end;
    });
    if (m_isInFront)
        m_trace = Trace(); // it tells nothing by itself
    m_traces.push_back(std::move(m_trace));
    m_trace = Trace();
    m_state = TraceState(TraceState::Start::OfTrace);
    m_isInFront = true;
    m_lastTick = 0;
}

void Pieces::compare() {
    for (std::size_t number = 0; number < m_traces.size(); ++number) {
        Trace& trace = m_traces[number];
        Numbered numbered;
        std::erase_if(trace.front, [&](const auto& packet) {
            const auto held = m_held.find(numbered(packet.second));
            return held == m_held.end() || trace.first == kUnknown64 ||
                   std::ranges::none_of(held->second, [&](const End& end) {
                       return end.tick != kUnknown64 && end.trace != number && end.tick <= trace.first;
                   });
        });
        for (auto& packet : trace.front)
            packet.second = std::string();
    }
    m_held.clear();
}

bool Pieces::restates(std::size_t trace, std::uint64_t offset) const {
    const auto& front = m_traces[trace].front;
    if (front.empty() || offset > front.back().first)
        return false;
    return std::ranges::binary_search(front, offset, {}, [](const auto& packet) { return packet.first; });
}

} // namespace qvx
