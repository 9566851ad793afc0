#pragma once

#include "quorvex/platform/Bstr.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <string>

/// How grave a logged message is. The library itself uses these two; other values pass through.
enum tagEMessageLevel : int { MessageLevelError = 1, MessageLevelTrace = 4 };

/// One entry of the message log.
class QUORVEX_API CMessage {
public:
    CMessage() = default;
    CMessage(tagEMessageLevel level, ATL::CComBSTR origin, ATL::CComBSTR message);

    const tagEMessageLevel& Level() const { return m_level; }  ///< how grave it is
    const ATL::CComBSTR& Origin() const { return m_origin; }   ///< the part of the library that says it
    const ATL::CComBSTR& Message() const { return m_message; } ///< what it says

    /// A new entry from narrow texts, each byte of which becomes one wide character. Short of memory for them, throws
    /// the CAtlException of the string layer.
    static std::shared_ptr<CMessage> create(tagEMessageLevel level, const std::string& origin,
                                            const std::string& message);
    /// A new entry with copies of this one's parts.
    std::shared_ptr<CMessage> create() const;

private:
    tagEMessageLevel m_level = tagEMessageLevel(0);
    ATL::CComBSTR m_origin;
    ATL::CComBSTR m_message;
};

/// The log through which the library reports what it does not throw. The host polls it with size() and pop();
/// messages pile up until then. Every operation may be called from any thread. None allocates or releases memory inside
/// the lock: the allocator of a program that is recorded may itself have something to report.
class QUORVEX_API CMessageQueue {
public:
    CMessageQueue(); ///< throws std::bad_alloc
    CMessageQueue(const CMessageQueue&) = delete;
    CMessageQueue& operator=(const CMessageQueue&) = delete;

    void push(tagEMessageLevel level, const ATL::CComBSTR& origin, const ATL::CComBSTR& message);
    /// The oldest message, taken out; empty when there is none.
    std::shared_ptr<CMessage> pop();
    /// Up to `count` messages, oldest first.
    std::deque<std::shared_ptr<CMessage>> pop(unsigned count);
    unsigned size() const;

    /// The one log of the process. It exists before any static object of a source that includes this header, and is
    /// never destroyed, so that reports made while the host's static objects come and go are safe.
    static std::shared_ptr<CMessageQueue>& g_Instance;
    /// Makes g_Instance if it is not there yet; always true.
    static bool ensureInstance();

    /// Holds all operations off, for what must see the log at rest, as a fork of the process.
    void lock();
    void unlock(); ///< lets them go on

private:
    struct Lock;
    using Entries = std::list<std::shared_ptr<CMessage>>;

    /// Up to so many of the oldest.
    Entries take(std::size_t count);

    Quorvex::platform::Owned<Lock> m_lock;
    Entries m_messages;
};

namespace Quorvex {

/// Sees to it that the log exists before the first report.
inline const bool kMessageLogReady = CMessageQueue::ensureInstance();

/// Pushes a message with an empty origin. Never throws: a report that memory is too short for is lost.
QUORVEX_API void logMessage(tagEMessageLevel level, const std::string& message) noexcept;
inline void logError(const std::string& message) noexcept {
    logMessage(MessageLevelError, message);
}
/// Reports a caught exception: `where`, then the exception's text in double quotes.
QUORVEX_API void logException(const char* where, const char* what) noexcept;

} // namespace Quorvex
