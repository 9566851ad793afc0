#include "quorvex/analysis/TraceDigest.h"

#include "quorvex/analysis/Sha256.h"
#include "quorvex/analysis/TraceEvents.h"
#include "quorvex/format/Digits.h"

namespace Quorvex {

std::string digestOf(TraceFile& trace, const std::function<bool(const CTraceCursor&)>& takes) {
    TraceEvents events(trace);
    Sha256 sum;
    while (events.next()) {
        if (!takes || takes(events.packet()))
            sum.add(events.bytes());
    }
    std::string digits;
    for (const unsigned char byte : sum.finish()) {
        char text[2];
        putHex<2>(text, byte);
        digits.append(text, sizeof text);
    }
    return digits;
}

} // namespace Quorvex
