#pragma once

#include "quorvex/format/TCodeInfo.h"

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

} // namespace Quorvex
