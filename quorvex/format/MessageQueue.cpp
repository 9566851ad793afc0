#include "quorvex/format/MessageQueue.h"

#include <algorithm>
#include <iterator>
#include <mutex>

namespace {

// A union member is neither built nor destroyed by itself: the pointer starts empty before any code runs (its
// default constructor is constexpr) and outlives all static objects.
union Immortal {
    constexpr Immortal() : queue() {}
    ~Immortal() {}
    std::shared_ptr<CMessageQueue> queue;
};

constinit Immortal g_immortal;

} // namespace

constinit std::shared_ptr<CMessageQueue>& CMessageQueue::g_Instance = g_immortal.queue;

bool CMessageQueue::ensureInstance() {
    static const bool ready = (g_Instance = std::make_shared<CMessageQueue>(), true);
    return ready;
}

CMessage::CMessage(tagEMessageLevel level, ATL::CComBSTR origin, ATL::CComBSTR message)
    : m_level(level), m_origin(std::move(origin)), m_message(std::move(message)) {}

std::shared_ptr<CMessage> CMessage::create(tagEMessageLevel level, const std::string& origin,
                                           const std::string& message) {
    return std::make_shared<CMessage>(level, ATL::CComBSTR(origin.c_str()), ATL::CComBSTR(message.c_str()));
}

std::shared_ptr<CMessage> CMessage::create() const {
    return std::make_shared<CMessage>(*this);
}

// Not a recursive one: a forked child may only unlock what knows no owner.
struct CMessageQueue::Lock : std::mutex {};

CMessageQueue::CMessageQueue() : m_lock(Quorvex::platform::makeOwned<Lock>()) {}

void CMessageQueue::lock() {
    m_lock->lock();
}

void CMessageQueue::unlock() {
    m_lock->unlock();
}

void CMessageQueue::push(tagEMessageLevel level, const ATL::CComBSTR& origin, const ATL::CComBSTR& message) {
    Entries entry{std::make_shared<CMessage>(level, origin, message)};
    const std::lock_guard lock(*m_lock);
    m_messages.splice(m_messages.end(), entry);
}

std::shared_ptr<CMessage> CMessageQueue::pop() {
    const Entries taken = take(1);
    return taken.empty() ? nullptr : taken.front();
}

std::deque<std::shared_ptr<CMessage>> CMessageQueue::pop(unsigned count) {
    const Entries taken = take(count);
    return {taken.begin(), taken.end()};
}

CMessageQueue::Entries CMessageQueue::take(std::size_t count) {
    Entries taken;
    const std::lock_guard lock(*m_lock);
    const auto end = std::next(m_messages.begin(), static_cast<std::ptrdiff_t>(std::min(count, m_messages.size())));
    taken.splice(taken.end(), m_messages, m_messages.begin(), end);
    return taken;
}

unsigned CMessageQueue::size() const {
    const std::lock_guard lock(*m_lock);
    return static_cast<unsigned>(m_messages.size());
}

namespace Quorvex {

void logMessage(tagEMessageLevel level, const std::string& message) noexcept {
    try {
        CMessageQueue::ensureInstance();
        const std::shared_ptr<CMessageQueue> log = CMessageQueue::g_Instance;
        if (log)
            log->push(level, ATL::CComBSTR(), ATL::CComBSTR(message.c_str()));
    } catch (...) {
    }
}

void logException(const char* where, const char* what) noexcept {
    try {
        logError(std::string(where) + '"' + (what ? what : "") + '"');
    } catch (...) {
    }
}

} // namespace Quorvex
