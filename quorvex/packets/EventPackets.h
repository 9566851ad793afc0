#pragma once

/// Events: something of a known type that happened on a core.
///
///     EventDefine     EvtId:4 | EvtType:4, then the name
///     EventUndefine   EvtId:4
///     Event           core context | EvtId:4 | 0 to 64 bytes of data

#include "quorvex/format/Data.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CEventDefinePayload)
QUORVEX_PAYLOAD(CEventPayload, 4)

/// What events are about. Other values travel as they are.
enum EEventType : std::uint32_t {
    Trigger = 0x0,
    LowPowerModeEnter = 0x1,
    LowPowerModeLeave = 0x2,
    DebugModeEnter = 0x3,
    DebugModeLeave = 0x4,
    GeneralFormattedMessage = 0x5,
    HWIndex = 0x6,
    Overflow = 0x7,
    Watchpoint = 0x20000000,
    Breakpoint = 0x40000000
};

/// What is known of event types. Safe from any thread.
struct QUORVEX_API CEventTypeInfo {
    static bool EventTypeIsValid(EEventType type);
    /// Static texts; null for an unknown type.
    static const char* EventTypeToName(EEventType type);
    static const char* EventTypeToDescription(EEventType type); ///< in words
    /// Bits 25 to 27 of the type, in place. All known types are in group 0: none has a bit there.
    static std::uint32_t EventTypeToGroup(EEventType type) { return type & 0x0E000000; }
};

class QUORVEX_API CEventDefinePayload : public PayloadOperations<CEventDefinePayload> {
    QUORVEX_FIELD(std::uint32_t, EvtId, 0)
    QUORVEX_FIELD(EEventType, EvtType, Trigger)
    QUORVEX_DEFINITION(EvtDef)

public:
    CEventDefinePayload() = default;
    CEventDefinePayload(std::uint32_t id, EEventType type, const CCharStringSequence& name = CCharStringSequence())
        : m_EvtId(id), m_EvtType(type), m_EvtDef(name) {}

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "EvtId", self.m_EvtId);
        visit(FieldMeaning::Id, "EvtType", self.m_EvtType);
    }
};

QUORVEX_ID_PAYLOAD(CEventUndefinePayload, EvtId)

class QUORVEX_API CEventPayload : public PayloadOperations<CEventPayload, 4> {
    QUORVEX_FIELD(std::uint32_t, EvtId, 0)

public:
    static constexpr bool kTakesRest = true;

    CEventPayload() = default;
    explicit CEventPayload(std::uint32_t id, const CData& data = CData()) : m_EvtId(id), m_data(data) {}

    const CData& EvtData() const { return m_data; }
    CData& EvtData() { return m_data; }
    void EvtData(const CData& data) {
        m_data = data;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "EvtId", self.m_EvtId);
        visit(FieldMeaning::Bytes, "Data", self.m_data);
    }

private:
    CData m_data;

    QUORVEX_RESIZABLE
};

// Defined with the texts of their failures, and compiled, in EventPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kEventDefineRules, kEventUndefineRules, kEventRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kEventDefineRules, PlainPacket, CEventDefinePayload>)
class QUORVEX_API CEventDefine : public PacketOf<kEventDefineRules, PlainPacket, CEventDefinePayload> {
    QUORVEX_KIND(EventDefine, PacketOf)

public:
    CEventDefine(std::uint32_t id, EEventType type, const CCharStringSequence& name = CCharStringSequence());
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kEventUndefineRules, PlainPacket, CEventUndefinePayload>)
class QUORVEX_API CEventUndefine : public PacketOf<kEventUndefineRules, PlainPacket, CEventUndefinePayload> {
    QUORVEX_KIND(EventUndefine, PacketOf)

public:
    CEventUndefine(std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kEventRules, CorePacket, CEventPayload>)
class QUORVEX_API CEvent : public PacketOf<kEventRules, CorePacket, CEventPayload> {
    QUORVEX_KIND(Event, PacketOf)

public:
    CEvent(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
           const CData& data = CData());
    CEvent(const CCoreContext& context, std::uint32_t id, const CData& data = CData());
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex
