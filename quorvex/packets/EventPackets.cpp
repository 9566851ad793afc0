#include "quorvex/packets/EventPackets.h"

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

} // namespace Quorvex
