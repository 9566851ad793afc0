#include "quorvex/packets/EventPackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

namespace {

struct Row {
    EEventType type;
    const char* name;
    const char* description;
};

constexpr Row kRows[] = {
    {Trigger, "Trigger", "Trigger Occured"},
    {LowPowerModeEnter, "LowPowerModeEnter", "Enter Low Power Mode"},
    {LowPowerModeLeave, "LowPowerModeLeave", "Leave Low Power Mode"},
    {DebugModeEnter, "DebugModeEnter", "Enter Debug Mode"},
    {DebugModeLeave, "DebugModeLeave", "Leave Debug Mode"},
    {GeneralFormattedMessage, "GeneralFormattedMessage", "General Formated Message"},
    {HWIndex, "HWIndex", "Hardware Stream Offset"},
    {Overflow, "Overflow", "Overflow"},
    {Watchpoint, "Watchpoint", "Watchpoint"},
    {Breakpoint, "Breakpoint", "Breakpoint"},
};

const Row* find(EEventType type) {
    for (const Row& row : kRows) {
        if (row.type == type)
            return &row;
    }
    return nullptr;
}

} // namespace

bool CEventTypeInfo::EventTypeIsValid(EEventType type) {
    return find(type) != nullptr;
}

const char* CEventTypeInfo::EventTypeToName(EEventType type) {
    const Row* row = find(type);
    return row ? row->name : nullptr;
}

const char* CEventTypeInfo::EventTypeToDescription(EEventType type) {
    const Row* row = find(type);
    return row ? row->description : nullptr;
}

#define QUORVEX_EVENT_RULES(Class)                                                                                     \
    {                                                                                                                  \
        .header = Class ": Read-In Constructor called with invalid header data",                                       \
        .context = Class ": Read-In Constructor could not read context data.",                                         \
        .payload = Class ": Read-In Constructor could not read event data.",                                           \
        .text = Class ": Read-In constructor could not read valid event definition string."                            \
    }
constexpr ReadRules kEventDefineRules = QUORVEX_EVENT_RULES("CEventDefine");
constexpr ReadRules kEventUndefineRules = QUORVEX_EVENT_RULES("CEventUndefine");
constexpr ReadRules kEventRules = QUORVEX_EVENT_RULES("CEvent");
#undef QUORVEX_EVENT_RULES

CEventDefine::CEventDefine(std::uint32_t id, EEventType type, const CCharStringSequence& name)
    : PacketOf({}, kCode, id, type, name) {}

CEventUndefine::CEventUndefine(std::uint32_t id) : PacketOf({}, kCode, id) {}

CEvent::CEvent(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint32_t id,
               const CData& data)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode, id, data) {}
CEvent::CEvent(const CCoreContext& context, std::uint32_t id, const CData& data)
    : PacketOf(context.values(), kCode, id, data) {}

template class PayloadOperations<CEventDefinePayload>;
template class PayloadOperations<CEventUndefinePayload>;
template class PayloadOperations<CEventPayload, 4>;

template class PacketOf<kEventDefineRules, PlainPacket, CEventDefinePayload>;
template class PacketOf<kEventUndefineRules, PlainPacket, CEventUndefinePayload>;
template class PacketOf<kEventRules, CorePacket, CEventPayload>;

QUORVEX_COMPILE_KIND(EventDefine)
QUORVEX_COMPILE_KIND(EventUndefine)
QUORVEX_COMPILE_KIND(Event)

} // namespace Quorvex
