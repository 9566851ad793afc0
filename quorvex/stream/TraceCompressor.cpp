#include "quorvex/stream/TraceCompressor.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"

#include <new>

namespace Quorvex {

namespace {

/// What goes with a sort of context: its sync packet, its relative form, and what is said of failures.
template <class Context> struct Sort;

#define QUORVEX_SORT(Context, RelContext, SyncPacket)                                                                  \
    template <> struct Sort<Context> {                                                                                 \
        using Relative = RelContext;                                                                                   \
        using Restated = SyncPacket;                                                                                   \
        static constexpr const char* kNoSyncContext =                                                                  \
            "CTraceCompressor::compress(): Dynamic cast from " #SyncPacket " to " #Context " failed!";                 \
        static constexpr const char* kNoContext =                                                                      \
            "CTraceCompressor::compress(): Dynamic cast to " #Context " failed!";                                      \
        static constexpr const char* kNoSync =                                                                         \
            "CTraceCompressor::compress(): error creating a " #SyncPacket " packet!";                                  \
    };
QUORVEX_SORT(CCoreContext, CRelCoreContext, CSync)
QUORVEX_SORT(CBusContext, CRelBusContext, CBusSync)
QUORVEX_SORT(CSystemContext, CRelSystemContext, CSystemSync)
#undef QUORVEX_SORT

ContextSort sortOf(tagTCode code) {
    const ContextSort sync = sortOfSync(code);
    return sync != ContextSort::None ? sync : sortOfAbsolute(code);
}

} // namespace

CTraceCompressor::~CTraceCompressor() {
    CPacketFactory::release(m_pending);
}

std::uint64_t CTraceCompressor::tellp() {
    auto* withPosition = dynamic_cast<CTraceSinkEx*>(&m_downstream);
    return withPosition ? withPosition->tellp() : out_size();
}

bool CTraceCompressor::put(CPacket* packet) {
    if (!packet)
        return false;
    if (sortOf(packet->TraceCode()) == ContextSort::None)
        return m_downstream.put(packet);
    CPacket* copy = CPacketFactory::duplicate(packet);
    if (!copy)
        return false;
    const bool taken = forward(copy);
    CPacketFactory::releaseCPacket(&copy);
    return taken;
}

bool CTraceCompressor::forward(CPacket*& packet) {
    if (!packet)
        return false;
    if (sortOf(packet->TraceCode()) == ContextSort::None)
        return m_downstream.forward(packet);
    m_pending.push_back(packet);
    const Result result = compress();
    if (result != Result::NotConverted)
        packet = nullptr;
    else
        m_pending.clear();
    return result == Result::Done;
}

bool CTraceCompressor::forward(std::list<CPacket*>& packets) {
    m_pending.swap(packets);
    const Result result = compress();
    if (result == Result::NotConverted)
        m_pending.swap(packets);
    return result == Result::Done;
}

CTraceCompressor::Result CTraceCompressor::compress() {
    if (!convert())
        return Result::NotConverted;
    if (m_downstream.forward(m_pending))
        return Result::Done;
    logError("CTraceCompressor: Error! Could not forward list content.");
    if (!CPacketFactory::release(m_pending))
        logError("CTraceCompressor: Error! Could not release forward list content.");
    // The sync packets may be among what is lost.
    m_references = References();
    return Result::Refused;
}

bool CTraceCompressor::convert() {
    const References before = m_references;
    bool good = true;
    for (auto at = m_pending.begin(); good && at != m_pending.end(); ++at) {
        switch (*at ? sortOf((*at)->TraceCode()) : ContextSort::None) {
        case ContextSort::Core:
            good = convert(at, m_references.core);
            break;
        case ContextSort::Bus:
            good = convert(at, m_references.bus);
            break;
        case ContextSort::System:
            good = convert(at, m_references.system);
            break;
        case ContextSort::None:
            break;
        }
    }
    if (!good) {
        undo();
        m_references = before;
        return false;
    }
    for (Change& change : m_changes) {
        if (change.replaced && !CPacketFactory::releaseCPacket(&change.replaced))
            logError("CTraceCompressor::compress(): Leaking memory, due to unable to release garbage!");
    }
    m_changes.clear();
    return true;
}

template <class Context>
bool CTraceCompressor::convert(std::list<CPacket*>::iterator at, std::optional<Context>& reference) {
    CPacket* packet = *at;
    const auto* context = contextOf<Context>(*packet);
    const bool isSync = sortOfSync(packet->TraceCode()) != ContextSort::None;
    if (!context) {
        logError(isSync ? Sort<Context>::kNoSyncContext : Sort<Context>::kNoContext);
        return false;
    }
    if (isSync) {
        reference = *context;
        return true;
    }
    if (!reference || !Sort<Context>::Relative::testRelative(*reference, *context)) {
        CPacket* sync = new (std::nothrow) typename Sort<Context>::Restated(*context);
        if (!sync) {
            logError(Sort<Context>::kNoSync);
            return false;
        }
        m_changes.push_back({m_pending.insert(at, sync), nullptr});
        reference = *context;
    }
    CPacket* relative = CPacketFactory::compress(packet, *reference);
    if (!relative) {
        logError("CTraceCompressor::compress(): error creating a compressed packet!");
        return false;
    }
    *at = relative;
    m_changes.push_back({at, packet});
    return true;
}

void CTraceCompressor::undo() {
    for (Change& change : m_changes) {
        CPacketFactory::releaseCPacket(&*change.at);
        if (change.replaced)
            *change.at = change.replaced;
        else
            m_pending.erase(change.at);
    }
    m_changes.clear();
}

} // namespace Quorvex
