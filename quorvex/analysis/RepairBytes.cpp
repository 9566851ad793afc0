#include "quorvex/analysis/RepairBytes.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace Quorvex::detail {

std::uint64_t fullTickAt(std::string_view packet) {
    const tagTCode code = codeAt(packet);
    const KindFacts& facts = factsOf(code);
    if (packet.size() < kHeader + sizeof(std::uint64_t) ||
        !(code == Timestamp || (facts.context != ContextSort::None && !facts.isRelative)))
        return kUnknown64;
    return checkedTick(loadLittleEndian<std::uint64_t>(packet.data() + kHeader));
}

void RepairWindow::refill(std::uint64_t keep) {
    std::memmove(m_bytes.get(), m_bytes.get() + indexOf(keep), indexOf(m_end) - indexOf(keep));
    m_begin = keep;
    while (!m_isEnded && indexOf(m_end) < kSize) {
        const auto wanted = static_cast<unsigned>(std::min<std::uint64_t>({kSize - indexOf(m_end), kPageSize, m_left}));
        unsigned got = 0;
        char* const to = m_bytes.get() + indexOf(m_end);
        if (wanted > 0 && std::exchange(m_isAtStart, false))
            m_source.read(to, wanted, m_from, got);
        else if (wanted > 0)
            m_source.read(to, wanted, got);
        if (got == 0 && wanted > 0 && !m_source.eof())
            throw TraceError(m_name, m_from + m_end, platform::errorText(EIO));
        m_end += got;
        m_left -= got;
        m_isEnded = got == 0;
    }
}

} // namespace Quorvex::detail
