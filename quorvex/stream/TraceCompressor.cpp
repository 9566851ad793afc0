#include "quorvex/stream/TraceCompressor.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/factory/SpareNodes.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/platform/Attempt.h"

#include <utility>

namespace Quorvex {

namespace {

/// What is said of failures, by sort of context.
struct Failures {
    const char* noSyncContext;
    const char* noContext;
    const char* noSync;
};

constexpr Failures kFailures[] = {
    {},
    {"CTraceCompressor::compress(): Dynamic cast from CSync to CCoreContext failed!",
     "CTraceCompressor::compress(): Dynamic cast to CCoreContext failed!",
     "CTraceCompressor::compress(): error creating a CSync packet!"},
    {"CTraceCompressor::compress(): Dynamic cast from CBusSync to CBusContext failed!",
     "CTraceCompressor::compress(): Dynamic cast to CBusContext failed!",
     "CTraceCompressor::compress(): error creating a CBusSync packet!"},
    {"CTraceCompressor::compress(): Dynamic cast from CSystemSync to CSystemContext failed!",
     "CTraceCompressor::compress(): Dynamic cast to CSystemContext failed!",
     "CTraceCompressor::compress(): error creating a CSystemSync packet!"},
};

constexpr char kNotConverted[] = "CTraceCompressor::compress(): error creating a compressed packet!";

void releaseConverted(CPacket* packet) {
    if (!CPacketFactory::releaseCPacket(&packet))
        logError("CTraceCompressor::compress(): Leaking memory, due to unable to release garbage!");
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
    if (sortOfFull(packet->TraceCode()) == ContextSort::None)
        return m_downstream.put(packet);
    CPacket* copy = CPacketFactory::duplicate(packet);
    if (!copy)
        return false;
    const bool taken = forward(copy);
    CPacketFactory::releaseCPacket(&copy);
    return taken;
}

inline bool CTraceCompressor::handOver() {
    try {
        if (m_downstream.forward(m_pending)) [[likely]]
            return true;
    } catch (...) {
        lose();
        throw;
    }
    lose();
    return false;
}

bool CTraceCompressor::forward(CPacket*& packet) {
    if (!packet)
        return false;
    const tagTCode code = packet->TraceCode();
    const ContextSort sort = sortOfAbsolute(code);
    if (sort == ContextSort::None && sortOfSync(code) == ContextSort::None)
        return m_downstream.forward(packet);
    detail::append(m_pending, packet);
    if (CPacket* converted = relative(*packet, sort)) {
        m_pending.front() = converted;
        delete std::exchange(packet, nullptr);
        return handOver();
    }
    if (!convert()) {
        m_pending.clear();
        return false;
    }
    packet = nullptr;
    return handOver();
}

bool CTraceCompressor::forward(std::list<CPacket*>& packets) {
    m_pending.swap(packets);
    if (!convert()) {
        m_pending.swap(packets);
        return false;
    }
    return handOver();
}

void CTraceCompressor::lose() {
    logError("CTraceCompressor: Error! Could not forward list content.");
    if (!CPacketFactory::release(m_pending))
        logError("CTraceCompressor: Error! Could not release forward list content.");
    // The sync packets may be among what is lost.
    m_contexts.forget();
}

bool CTraceCompressor::convert() {
    m_before.reset();
    const auto convertAll = [this] {
        m_changes.reserve(2 * m_pending.size()); // or one that is made could not be noted
        for (auto at = m_pending.begin(); at != m_pending.end(); ++at) {
            if (*at && !convert(at))
                return false;
        }
        return true;
    };
    if (!attempt(convertAll, [](const std::exception&) { logError(kNotConverted); })) {
        undo();
        if (m_before)
            m_contexts = *m_before;
        return false;
    }
    for (Change& change : m_changes) {
        if (change.replaced)
            releaseConverted(change.replaced);
    }
    m_changes.clear();
    return true;
}

bool CTraceCompressor::convert(std::list<CPacket*>::iterator at) {
    CPacket* packet = *at;
    const ContextSort sort = sortOfFull(packet->TraceCode());
    if (sort == ContextSort::None)
        return true;
    const Failures& failures = kFailures[std::size_t(sort)];
    const auto failed = [](const char* text) {
        logError(text);
        return false;
    };
    if (sortOfSync(packet->TraceCode()) != ContextSort::None) {
        keepContexts();
        return m_contexts.note(*packet) || failed(failures.noSyncContext);
    }
    CPacket* converted = relative(*packet, sort);
    if (!converted) {
        keepContexts();
        if (!m_contexts.adopt(*packet))
            return failed(failures.noContext);
        const auto sync = detail::insert(m_pending, at, nullptr);
        m_changes.push_back({sync, nullptr});
        *sync = m_contexts.sync(sort);
        if (!*sync)
            return failed(failures.noSync);
        converted = relative(*packet, sort);
    }
    if (!converted)
        return failed(kNotConverted);
    *at = converted;
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
