#pragma once

/// The texts behind packets. A text is a run of CharString packets behind a packet that takes one: it goes on as long
/// as they are full (255 bytes) and ends with the first that is not. A run that breaks off (a packet of another kind
/// follows, or the trace ends) is the text so far. An empty CharString packet that begins a run is no text.

#include "quorvex/packets/CounterPackets.h"

namespace Quorvex {

/// Whether a packet of that code may be followed by CharString packets that belong to it.
constexpr bool isFollowedByText(tagTCode code) {
    switch (code) {
    case RelCounterDefine:
    case RelCounterDefineUnit:
    case CounterDefine:
    case CounterDefineUnit:
    case EventDefine:
    case Message:
    case RelFunctionDefine:
    case RelProcessDefine:
    case RelLineDefine:
    case FunctionDefine:
    case ProcessDefine:
    case LineDefine:
    case RelTypeDefine:
    case RelVariableDefine:
    case RelExpressionDefine:
    case TypeDefine:
    case VariableDefine:
    case ExpressionDefine:
    case RelSignalDefine:
    case SignalDefine:
    case StateMachineDefine:
    case StateMachineInstanceDefine:
    case StateDefine:
    case TransitionDefine:
        return true;
    default:
        return false;
    }
}

/// The payload's length of a packet of that code that may hold the text too, without it. 0 for all kinds but
/// definitions of counters.
constexpr unsigned lengthWithoutText(tagTCode code) {
    switch (code) {
    case CounterDefine:
    case CounterDefineUnit:
        return CCounterDefine::Len();
    case RelCounterDefine:
    case RelCounterDefineUnit:
        return CRelCounterDefine::Len();
    default:
        return 0;
    }
}

/// Whether the payload of a packet, as long as its header says, holds the text too; then none follows.
constexpr bool countsText(tagTCode code, unsigned length) {
    const unsigned without = lengthWithoutText(code);
    return without > 0 && length > without;
}

} // namespace Quorvex
