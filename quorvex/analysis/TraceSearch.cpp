#include "quorvex/analysis/TraceSearch.h"

#include "quorvex/analysis/RepairBytes.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/OpenFrame.h"
#include "quorvex/stream/PageFormat.h"

#include <algorithm>
#include <bitset>
#include <limits>
#include <string_view>

namespace Quorvex {

namespace {

using namespace detail;

/// Looks for traces in any bytes.
class Search {
public:
    Search(CTraceSourceBuffer& source, const std::string& name)
        : m_in(source, name, 0, std::numeric_limits<std::uint64_t>::max()) {}

    template <class Take> void run(Take take) {
        for (std::uint64_t at = 0; reach(at), at < m_in.end(); ++at) {
            if (!isRow(at, kUnknown64))
                continue;
            const std::uint64_t end = endOf(at);
            take(FoundTrace{at, end - at});
            at = end - 1;
        }
    }

private:
    static constexpr unsigned kRow = 0x10000; ///< bytes in which packets must tell that they are some

    void reach(std::uint64_t at) { m_in.reach(at, at + kRow + kMostBytes); }

    /// Whether a packet stands there with which a frame begins, all its fields as they are written today.
    static bool isBeginning(std::string_view here) {
        constexpr std::size_t kConfigAt = OpenFrame::kLengthAt + sizeof(std::uint64_t);
        constexpr std::uint32_t kConfigs = 8;
        return here.size() >= OpenFrame::kSize && codeAt(here) == TraceEnabled &&
               lengthAt(here) == CTraceEnabled::Len() && loadLittleEndian<std::uint32_t>(here.data() + kHeader) == 0 &&
               loadLittleEndian<std::uint32_t>(here.data() + kConfigAt) < kConfigs;
    }

    /// Whether packets stand there that are no chance, behind one with that tick.
    bool isRow(std::uint64_t start, std::uint64_t tick) {
        constexpr unsigned kTicks = 8, kKinds = 3, kFurther = 4;
        const std::string_view first = m_in.at(start);
        const bool begins = isBeginning(first);
        if (!begins && (sizeOfPacket(first) == 0 || fullTickAt(first) == kUnknown64))
            return false;
        reach(start);
        const bool isKnown = begins || tick != kUnknown64;
        std::bitset<256> kinds;
        bool isMixed = false;
        unsigned packets = 0, ticks = 0, falls = 0;
        unsigned size = 0, sizeBefore = 0;
        for (std::uint64_t at = start; at < m_in.end() && at < start + kRow; at += size) {
            const std::string_view here = m_in.at(at);
            size = sizeOfPacket(here);
            if (size == 0)
                break;
            kinds.set(codeAt(here));
            isMixed = isMixed || (sizeBefore > 0 && size != sizeBefore);
            sizeBefore = size;
            ++packets;
            if (const std::uint64_t told = fullTickAt(here.substr(0, size)); told != kUnknown64) {
                if (tick != kUnknown64 && !isNear(told, tick))
                    return false;
                falls += tick != kUnknown64 && told < tick;
                tick = told;
                ++ticks;
            }
            if (begins ? packets >= kFurther && ticks > 0
                       : ticks >= (isKnown ? kFurther : kTicks) && 4 * falls <= ticks &&
                             (isKnown || (kinds.count() >= kKinds && isMixed)))
                return true;
        }
        return false;
    }

    /// Where the trace ends that begins there.
    std::uint64_t endOf(std::uint64_t at) {
        std::uint64_t tick = kUnknown64;
        while (true) {
            tagTCode last = Invalid;
            unsigned size = 0;
            for (; reach(at), at < m_in.end() && (size = sizeOfPacket(m_in.at(at))) > 0; at += size) {
                last = codeAt(m_in.at(at));
                if (const std::uint64_t told = fullTickAt(m_in.at(at).substr(0, size)); told != kUnknown64)
                    tick = told;
                if (last == EndOfTrace)
                    return at + size;
            }
            m_in.reach(at, at + kPageSize + kRow + kMostBytes);
            std::uint64_t next = last == TraceDisabled ? m_in.end() : at;
            const std::uint64_t stop = std::min(at + kPageSize, m_in.end());
            while (next <= stop && next < m_in.end() && !isRow(next, tick))
                ++next;
            if (next > stop || next >= m_in.end() || codeAt(m_in.at(next)) == TraceEnabled)
                return at;
            at = next;
        }
    }

    RepairWindow m_in;
};

} // namespace

void detail::findTraces(CTraceSourceBuffer& source, const std::string& name, void (*take)(void*, const FoundTrace&),
                        void* taker) {
    Search(source, name).run([=](const FoundTrace& trace) { take(taker, trace); });
}

} // namespace Quorvex
