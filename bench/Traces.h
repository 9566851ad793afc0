#pragma once

#include "bench/Calls.h"
#include "quorvex/quorvex.h"

#include <string>

namespace bench {

/// The packets of a trace of that many events.
constexpr unsigned packetsOfCalls(unsigned events) {
    return events + kFunctions + 4;
}

/// Hands the packets of a whole trace to `put`, each for the time of the call: its head, definitions, function enters
/// and leaves, its end. They are that many, an even number of at least 200.
template <class Put> void forCallPackets(unsigned packets, Put&& put) {
    using namespace Quorvex;
    const auto hand = [&put](auto&& packet) { put(packet); };
    hand(CTraceEnabled(kUnknown64, UnknownExpanded, false));
    hand(CTimestamp(0, kTicksPerSecond));
    for (unsigned i = 0; i < kFunctions; ++i)
        hand(CFunctionDefine(CCoreContext(), i, CCharStringSequence(("function_" + std::to_string(i)).c_str())));
    const unsigned events = packets - packetsOfCalls(0);
    Calls calls(events);
    for (unsigned i = 0; i < events; ++i) {
        const Calls::Event event = calls.next();
        const CCoreContext context(event.tick, 0, 1, kUnknown64);
        if (event.isEnter)
            hand(CFunctionEnter(context, event.function));
        else
            hand(CFunctionLeave(context, event.function));
    }
    hand(CTraceDisabled());
    hand(CEndOfTrace());
}

/// Instructions whose contexts need a sync packet now and then, as those of a real program.
inline Quorvex::CExecInsn stepOf(unsigned i) {
    return Quorvex::CExecInsn(Quorvex::CCoreContext(i, 0, 1, 0x1000 + 4 * (i % 40) + 0x1000 * (i / 15 % 7)));
}

} // namespace bench
