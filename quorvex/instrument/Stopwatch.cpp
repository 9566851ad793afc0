#include "quorvex/instrument/Stopwatch.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/System.h"

#include <sstream>

namespace Quorvex {

CStopwatch::CStopwatch(bool startNow) {
    init();
    if (startNow)
        start();
}

void CStopwatch::init() {
    m_frequency = platform::counterFrequency();
}

std::uint64_t CStopwatch::tick() {
    const std::uint64_t now = platform::counterTick();
    return now == ~std::uint64_t{0} ? 0 : now;
}

CAutowatch::~CAutowatch() {
    stop();
    try {
        if (m_name)
            logError(m_name);
        if (m_number != 0)
            logError(std::string("[") + (m_name ? m_name : "") + "]");
        logError(":");
        std::ostringstream seconds;
        seconds << getExpiredSeconds() << "s";
        logError(seconds.str());
    } catch (const std::exception&) {
        // Short of memory, the report is lost; the program goes on.
    }
}

} // namespace Quorvex
