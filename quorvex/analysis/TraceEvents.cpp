#include "quorvex/analysis/TraceEvents.h"

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/packets/TraceControlPackets.h"

#include <utility>

namespace Quorvex {

namespace {

constexpr char kFrameEnd[] = {static_cast<char>(TraceDisabled), 0};

char asChar(unsigned byte) {
    return static_cast<char>(static_cast<unsigned char>(byte));
}

template <class Part> void append(std::string& to, const Part& part) {
    char bytes[Part::Len()];
    encodePart(part, bytes);
    to.append(bytes, sizeof bytes);
}

/// Puts the context of a relative packet in full; how many bytes of its payload that stands for.
template <class Relative> unsigned appendContext(std::string& to, const CTraceCursor& packet) {
    using Context = typename Relative::Absolute;
    append(to, Context(*packet.contextOf<Context>(), FromValues()));
    return Relative::Len();
}

void appendText(std::string& to, std::string_view text) {
    bool isFull = true;
    while (isFull) {
        const std::string_view part = text.substr(0, kCharStringMax);
        to += asChar(CharString);
        to += asChar(static_cast<unsigned>(part.size()));
        to += part;
        text.remove_prefix(part.size());
        isFull = part.size() == kCharStringMax;
    }
}

} // namespace

TraceEvents::TraceEvents(TraceFile& trace) : m_trace(trace) {}

bool TraceEvents::next() {
    while (m_trace.advance()) {
        m_packet = &m_trace.cursor();
        if (take())
            return true;
    }
    return endOpenFrame();
}

inline bool TraceEvents::take() {
    const CTraceCursor& packet = *m_packet;
    const tagTCode code = packet.TraceCode();
    const KindFacts& kind = factsOf(code);
    if (kind.sync != ContextSort::None || code == Fill)
        return false;
    const bool follows = std::exchange(m_isNameless, false);
    if (follows && code == CharString && packet.Length() == 0)
        return false;
    const bool mayHaveText = kind.text != TextSort::None;
    m_isNameless = mayHaveText && packet.text().empty();
    const unsigned announced = static_cast<unsigned char>(packet.payload()[-1]);
    const bool isAsItIs = !kind.isRelative && announced == packet.Length() && code != TraceEnabled &&
                          (!mayHaveText || packet.textState() == CTraceCursor::Text::Whole);
    if (isAsItIs)
        m_bytes = {packet.payload() - CPacketHeader::Len(), static_cast<std::size_t>(packet.end() - packet.offset())};
    else
        make();
    return true;
}

void TraceEvents::make() {
    const CTraceCursor& packet = *m_packet;
    const KindFacts& kind = factsOf(packet.TraceCode());
    m_own.assign(CPacketHeader::Len(), '\0');
    unsigned passed = 0;
    switch (kind.isRelative ? kind.context : ContextSort::None) {
    case ContextSort::Core:
        passed = appendContext<CRelCoreContext>(m_own, packet);
        break;
    case ContextSort::Bus:
        passed = appendContext<CRelBusContext>(m_own, packet);
        break;
    case ContextSort::System:
        passed = appendContext<CRelSystemContext>(m_own, packet);
        break;
    case ContextSort::None:
        break;
    }
    if (const auto enabled = packet.as<CTraceEnabled>()) {
        CTraceEnabledPayload payload = *enabled;
        payload.FrameLen(kUnknown64);
        append(m_own, payload);
    } else {
        m_own.append(packet.payload() + passed, packet.Length() - passed);
    }
    m_own[0] = asChar(absoluteKind(packet.TraceCode()));
    m_own[1] = asChar(static_cast<unsigned>(m_own.size()) - CPacketHeader::Len());
    if (kind.text != TextSort::None)
        appendText(m_own, packet.text());
    m_bytes = m_own;
}

bool TraceEvents::endOpenFrame() {
    if (m_end || m_trace.report().end != TraceEnd::Recording)
        return false;
    m_packet = &m_end.emplace(std::string_view(kFrameEnd, sizeof kFrameEnd), m_trace.end());
    return m_end->next() && take();
}

} // namespace Quorvex
