#include "quorvex/analysis/TraceRepair.h"

#include "quorvex/analysis/RepairBytes.h"
#include "quorvex/analysis/RepairSolver.h"
#include "quorvex/analysis/RepairedTrace.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"

#include <algorithm>
#include <deque>
#include <string_view>

namespace Quorvex {

namespace {

using namespace detail;

/// Whether a trace is one of pages, as its first ones tell: a reader can begin at them.
bool beginsPages(const RepairWindow& in) {
    unsigned told = 0, pages = 0;
    for (std::uint64_t at = kPageSize; at < in.end(); at += kPageSize) {
        const std::string_view page = in.at(at, at + kPageSize);
        constexpr std::size_t kTelling = 16;
        const std::string_view start = page.substr(0, kTelling);
        if (start.find_first_not_of(start[0]) == start.npos)
            continue; // erased
        ++told;
        CContexts contexts;
        constexpr unsigned kRow = 64;
        constexpr unsigned kFewest = 8;
        unsigned packets = 0;
        std::size_t next = 0;
        bool isKnown = true;
        for (unsigned size; packets < kRow && isKnown && next < page.size(); next += size, ++packets) {
            const std::string_view here = page.substr(next);
            size = sizeOfPacket(here);
            if (size == 0)
                break;
            const ContextSort sort = sortOfRelative(codeAt(here));
            isKnown = sort == ContextSort::None || contexts.knows(sort);
            contexts.note(codeAt(here), here.data() + kHeader, lengthAt(here));
        }
        pages += isKnown && (packets >= kFewest || next >= page.size());
    }
    return 2 * pages > told;
}

class Repair {
public:
    Repair(CTraceSourceBuffer& source, CTraceSinkBuffer& to, const RepairOptions& options, RepairedTrace::Take take,
           void* taker)
        : m_in(source, options.name, options.from, options.to),
          m_isPaged((m_in.reach(0, RepairWindow::kSize), beginsPages(m_in))),
          m_out(m_in, to, m_isPaged, options, m_report, take, taker) {
        m_report.isPaged = m_isPaged;
    }

    RepairReport run() {
        while (m_out.isWritten()) {
            m_in.reach(kept(), m_at + kAhead + kMostBytes);
            if (m_at >= m_in.end())
                break;
            const std::string_view here = m_in.at(m_at, limit());
            const unsigned size = sizeOfPacket(here);
            if (size == 0 || RepairSolver::isOddText(here.substr(0, size))) {
                solve();
                continue;
            }
            m_pending.push_back(m_at);
            m_at += size;
            if (m_at == limit())
                takePending(0);
            else if (m_pending.size() > kPending)
                takePending(kPending);
        }
        takePending(0);
        m_report.size = m_in.end();
        m_out.end(m_in.end());
        return m_report;
    }

private:
    static constexpr std::size_t kPending = 16; ///< packets that may turn out to be none
    static constexpr unsigned kAhead = 0x4000;  ///< bytes behind damage that tell how to read on
    static constexpr unsigned kMargin = 0x1000; ///< the last of them are not decided yet

    std::uint64_t kept() const { return m_pending.empty() ? m_at : m_pending.front(); }
    /// No packet reaches beyond it.
    std::uint64_t limit() const { return m_isPaged ? pages::endAt(m_at) : kUnknown64; }

    void takePending(std::size_t left) {
        while (m_pending.size() > left) {
            const std::uint64_t offset = m_pending.front();
            m_pending.pop_front();
            const unsigned length = lengthAt(m_in.at(offset));
            m_out.packet(offset, {RepairSolver::How::Packet, static_cast<std::uint16_t>(kHeader + length),
                                  static_cast<std::uint8_t>(length)});
        }
    }

    /// Finds the best way around what cannot be read, from the packets that are pending on.
    void solve() {
        std::uint64_t at = kept();
        m_pending.clear();
        bool isInGap = false;
        do {
            const std::uint64_t from = at;
            m_in.reach(from, m_at + kAhead + kMostBytes);
            const std::uint64_t end = std::min({m_at + kAhead, m_in.end(), limit()});
            const bool isTraceEnd = m_in.isEnded() && end == m_in.end();
            const bool isEnd = isTraceEnd || end == limit();
            const auto count = static_cast<std::size_t>(end - from);
            m_solver.solve(m_in.at(from), count, isEnd, isTraceEnd, m_out.lastTick());
            std::size_t next = 0;
            while (next < count && (isEnd || next + kMargin < count)) {
                const RepairSolver::Part part = m_solver.partAt(next, isInGap);
                isInGap = part.how == RepairSolver::How::Gap;
                if (isInGap)
                    m_out.lose(from + next, 1);
                else if (part.how == RepairSolver::How::Stepped)
                    m_out.lose(from + next, part.size, part.size >= kHeader);
                else
                    m_out.packet(from + next, part);
                next += part.size;
            }
            at = m_at = from + next;
            isInGap = isInGap && !isEnd;
        } while (isInGap && m_out.isWritten());
    }

    RepairReport m_report;
    RepairWindow m_in;
    bool m_isPaged;
    RepairedTrace m_out;
    RepairSolver m_solver;
    std::uint64_t m_at = 0;              ///< what comes next
    std::deque<std::uint64_t> m_pending; ///< packets before it
};

} // namespace

RepairReport detail::repairTrace(CTraceSourceBuffer& source, CTraceSinkBuffer& to, const RepairOptions& options,
                                 void (*take)(void*, const RepairNote&), void* taker) {
    return Repair(source, to, options, take, taker).run();
}

} // namespace Quorvex
