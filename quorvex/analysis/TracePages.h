#pragma once

#include "quorvex/analysis/TraceState.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceDamage.h"

#include <cstdint>
#include <string>

namespace Quorvex {

class ReadWatch;
class TracePiece;
struct TraceAt;

/// A regular file of a trace in pages, of which any place is found, and any part is copied, without reading all of it.
/// Throws a TraceError where the file cannot be read. Used by one thread at a time.
class QUORVEX_API TracePages {
public:
    /// Opens a file. Throws when that is not possible.
    explicit TracePages(std::string path);
    TracePages(const TracePages&) = delete;
    TracePages& operator=(const TracePages&) = delete;
    virtual ~TracePages();

    /// Has no more threads than that walk at a time; 0: one a processor.
    void shareAmong(unsigned threads) { m_threads = threads; }
    /// Tells the watch, which must outlive this, of the bytes that are read.
    void watchBy(ReadWatch& watch);

    const std::string& name() const { return m_path; }
    std::uint64_t size() const { return m_size; } ///< bytes
    bool isRecording() const;                     ///< its end stands in a page file, as that of a killed program
    std::uint64_t count() const;                  ///< pages, the last of which may be shorter
    /// Whether the first pages are such: a packet ends where the first does, and the next one restates the contexts
    /// that are known there. What is no longer than a page may be one.
    bool arePages();
    /// Whether the ticks at the beginnings of some pages, which are spread over the file, do not go back.
    bool areInOrder();
    /// Where the first packet stands that tells what happened, or defines something, at this tick or behind: size() if
    /// there is none. Is to be asked only where ticks are in order.
    std::uint64_t placeOf(std::uint64_t tick);
    /// The contexts at a place, as its page tells them.
    CContexts contextsAt(std::uint64_t place);
    /// The state at the place of a packet, walked to by several threads.
    TraceState stateAt(std::uint64_t place);
    /// The open frame at the place of a packet, as far as the first page and the length of its frame tell.
    TraceFrame frameAt(std::uint64_t place);

    /// Puts what stands between the places of two packets: whole pages as they are, where that gives the same trace;
    /// the rest packet by packet. The contexts are those at `from`, the frame the one that is open there. False where
    /// the piece refuses something.
    bool copyTo(TracePiece& piece, std::uint64_t from, std::uint64_t to, const CContexts& contexts, TraceFrame frame);
    /// What copyTo() has stepped over in what it has put packet by packet, and bytes of a packet that is cut at the
    /// end.
    const TraceDamage& damage() const { return m_damage; }
    /// Where copyTo() has come to, if a packet has been refused.
    std::uint64_t stoppedAt() const { return m_stoppedAt; }

private:
    struct File;

    platform::Owned<TraceAt> openAt(std::uint64_t from, std::uint64_t to, const CContexts& contexts) const;
    std::uint64_t firstTickOf(std::uint64_t page);
    bool isPageBegin(std::uint64_t place);
    bool holdsFrames(std::uint64_t from, std::uint64_t to, const TraceFrame& frame);
    bool isDisabledAt(std::uint64_t place);
    bool putPackets(TracePiece& piece, std::uint64_t from, std::uint64_t to, const CContexts& contexts,
                    TraceFrame& frame);

    std::string m_path;
    platform::Owned<File> m_file;
    std::uint64_t m_size = 0;
    ReadWatch* m_watch = nullptr;
    unsigned m_threads = 0;
    TraceDamage m_damage;
    std::uint64_t m_stoppedAt = kUnknown64;
};

} // namespace Quorvex
