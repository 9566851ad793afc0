#include "quorvex/analysis/TracePages.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TracePiece.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/ReadWatch.h"
#include "quorvex/stream/TraceParts.h"
#include "quorvex/stream/TraceSourceBufferFile.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Quorvex {

namespace {

/// Whether a page that begins with `told` restates all that is known before it.
bool restatesAll(const CContexts& told, const CContexts& known) {
    return std::ranges::all_of(kContextSorts, [&](ContextSort sort) {
        return !known.knows(sort) || (told.knows(sort) && told.hasSame(sort, known));
    });
}

/// Whether something has happened, at a tick. Definitions may be older than what stands before them.
bool hasTick(const CTraceCursor& packet, std::uint64_t& tick) {
    if (factsOf(packet.TraceCode()).role != Role::Happening)
        return false;
    tick = packet.tick();
    return tick != kUnknown64;
}

/// What a file holds before a place in it.
class FileUntil : public Watched<CTraceSourceBufferFile> {
public:
    FileUntil(ReadWatch* watch, std::uint64_t count) : Watched(watch), m_left(count) {}

    using Watched::read;
    bool read(char* dst, unsigned count, unsigned& got) override {
        const auto wanted = static_cast<unsigned>(std::min<std::uint64_t>(count, m_left));
        got = 0;
        const bool isRead = wanted > 0 && Watched::read(dst, wanted, got);
        m_left -= got;
        return isRead;
    }
    bool eof() override { return m_left == 0 || CTraceSourceBufferFile::eof(); }

private:
    std::uint64_t m_left;
};

struct FramePart {
    TraceFrame frame;
    void join(FramePart&& next) { frame.join(next.frame); }
};

} // namespace

struct TracePages::File : Watched<CTraceSourceBufferFile> {
    File() : Watched(nullptr) {}
};

TracePages::TracePages(std::string path) : m_path(std::move(path)), m_file(platform::makeOwned<File>()) {
    if (!m_file->open(m_path))
        throw TraceError(m_path, platform::errorText(m_file->error()));
    m_size = m_file->size();
}

TracePages::~TracePages() = default;

void TracePages::watchBy(ReadWatch& watch) {
    m_watch = &watch;
    m_file->watchBy(watch);
}

bool TracePages::isRecording() const {
    return m_file->is_joined();
}

std::uint64_t TracePages::count() const {
    return pages::countIn(m_size);
}

platform::Owned<TraceAt> TracePages::openAt(std::uint64_t from, std::uint64_t to, const CContexts& contexts) const {
    auto file = platform::makeOwned<FileUntil>(m_watch, to - from);
    unsigned got = 0;
    if (!file->open(m_path))
        throw TraceError(m_path, platform::errorText(file->error()));
    file->CTraceSourceBufferStream::read(nullptr, 0, from, got); // only goes there
    if (!file->good())
        throw TraceError(m_path, from, platform::errorText(EIO));
    return platform::makeOwned<TraceAt>(std::move(file), from, contexts);
}

bool TracePages::isPageBegin(std::uint64_t place) {
    if (place == 0)
        return true;
    const auto before = openAt(place - kPageSize, place, CContexts());
    while (before->cursor.next()) {
    }
    return before->cursor.end() == place && before->cursor.left() == 0 && before->cursor.damage().places == 0 &&
           restatesAll(contextsAt(place), before->cursor.contexts());
}

bool TracePages::arePages() {
    return m_size <= kPageSize || isPageBegin(kPageSize);
}

CContexts TracePages::contextsAt(std::uint64_t place) {
    CContexts contexts;
    const std::uint64_t page = pages::beginAt(place);
    const auto at = openAt(page, std::min<std::uint64_t>(page + kPageSize, m_size), contexts);
    ContextSort last = ContextSort::None; // that the page has begun with
    while (at->cursor.next()) {
        const ContextSort sort = sortOfSync(at->cursor.TraceCode());
        if (at->cursor.offset() >= place && (place > page || sort <= last))
            break;
        last = std::max(last, sort);
        contexts = at->cursor.contexts();
    }
    return contexts;
}

std::uint64_t TracePages::firstTickOf(std::uint64_t page) {
    constexpr std::uint64_t kPortion = 0x2000;
    const std::uint64_t begin = pages::beginOf(page);
    const std::uint64_t end = std::min<std::uint64_t>(begin + kPageSize, m_size);
    std::uint64_t tick = kUnknown64;
    for (const std::uint64_t size : {kPortion, std::uint64_t{kPageSize}}) {
        const auto at = openAt(begin, std::min(begin + size, end), CContexts());
        while (at->cursor.next()) {
            if (hasTick(at->cursor, tick))
                return tick;
        }
    }
    return tick;
}

bool TracePages::areInOrder() {
    constexpr std::uint64_t kMost = 64;
    const std::uint64_t step = count() / kMost + 1;
    std::uint64_t last = 0;
    for (std::uint64_t page = 0; page < count(); page += step) {
        const std::uint64_t tick = firstTickOf(page);
        if (tick == kUnknown64)
            continue;
        if (tick < last)
            return false;
        last = tick;
    }
    return true;
}

std::uint64_t TracePages::placeOf(std::uint64_t tick) {
    // Behind the last page that begins before the tick, or has none.
    std::uint64_t low = 0, high = count();
    while (low < high) {
        const std::uint64_t middle = low + (high - low) / 2;
        std::uint64_t page = middle;
        std::uint64_t its = kUnknown64;
        while (page < high && (its = firstTickOf(page)) == kUnknown64)
            ++page;
        if (page == high || its >= tick)
            high = middle;
        else
            low = page + 1;
    }
    // `low` begins at the tick or behind; it may stand in the page before.
    const std::uint64_t from = low > 0 ? pages::beginOf(low - 1) : 0;
    const auto at = openAt(from, m_size, CContexts());
    std::uint64_t its = 0;
    while (at->cursor.next()) {
        its = factsOf(at->cursor.TraceCode()).role == Role::Structure ? kUnknown64 : at->cursor.tick();
        if (its != kUnknown64 && its >= tick)
            return at->cursor.offset();
    }
    return m_size;
}

TraceState TracePages::stateAt(std::uint64_t place) {
    const OpensTraceBy open([this, place](std::uint64_t position, const CContexts& contexts) {
        return openAt(std::min(position, place), place, contexts);
    });
    // Whatever a program writes meanwhile stands behind the place, but in a page file it may move.
    for (const std::uint64_t size : {m_file->is_joined() ? 0 : place, std::uint64_t{0}}) {
        TraceState state(TraceState::Start::OfTrace);
        const auto note = [](TraceState& its, const CTraceCursor& packet) { its.note(packet); };
        detail::PartsOf<TraceState, decltype(note)> work(state, note);
        TraceShares shares;
        shares.threads = m_threads;
        shares.most = 4;
        const auto first = openAt(0, place, CContexts());
        if (detail::walkInParts(*first, size, open, work, shares).hasFailed)
            throw TraceError(m_path, platform::errorText(EIO));
        if (state.isExact() || size == 0)
            return state;
    }
    return TraceState(TraceState::Start::OfTrace);
}

bool TracePages::isDisabledAt(std::uint64_t place) {
    char bytes[CPacketHeader::Len()] = {};
    unsigned got = 0;
    return place < m_size && m_size - place >= sizeof bytes && m_file->read(bytes, sizeof bytes, place, got) &&
           got == sizeof bytes && bytes[0] == static_cast<char>(TraceDisabled) && bytes[1] == 0;
}

TraceFrame TracePages::frameAt(std::uint64_t place) {
    TraceFrame frame;
    const auto at = openAt(0, std::min<std::uint64_t>(place, kPageSize), CContexts());
    while (at->cursor.next())
        frame.note(at->cursor);
    if (frame.isOpen && frame.length <= place - frame.offset &&
        isDisabledAt(frame.offset + frame.length - CPacketHeader::Len()))
        frame.isOpen = false;
    return frame;
}

bool TracePages::holdsFrames(std::uint64_t from, std::uint64_t to, const TraceFrame& frame) {
    if (frame.isOpen && frame.length <= m_size - frame.offset && frame.length >= CPacketHeader::Len()) {
        const std::uint64_t end = frame.offset + frame.length - CPacketHeader::Len();
        if (end >= from && isDisabledAt(end))
            return end < to;
    }
    const OpensTraceBy open([this, to](std::uint64_t position, const CContexts& contexts) {
        return openAt(std::min(position, to), to, contexts);
    });
    FramePart part;
    const auto note = [](FramePart& its, const CTraceCursor& packet) {
        if (factsOf(packet.TraceCode()).isFrame)
            its.frame.note(packet);
    };
    detail::PartsOf<FramePart, decltype(note)> work(part, note);
    const auto first = openAt(from, to, CContexts());
    TraceShares shares;
    shares.threads = m_threads;
    detail::walkInParts(*first, m_file->is_joined() ? 0 : to, open, work, shares);
    return part.frame.isTold;
}

bool TracePages::putPackets(TracePiece& piece, std::uint64_t from, std::uint64_t to, const CContexts& contexts,
                            TraceFrame& frame) {
    if (from >= to)
        return true;
    const auto at = openAt(from, to, contexts);
    CTraceCursor& cursor = at->cursor;
    while (cursor.next()) {
        if (factsOf(cursor.TraceCode()).isFrame)
            frame.note(cursor);
        if (!piece.put(std::as_const(cursor))) {
            m_stoppedAt = cursor.offset();
            return false;
        }
    }
    const TraceWalk walk = TraceWalk::of(*at);
    if (walk.hasFailed)
        throw TraceError(m_path, walk.end, platform::errorText(EIO));
    m_damage.join(walk.damage);
    m_damage.join({walk.left > 0, walk.left, walk.end, walk.end + walk.left});
    return true;
}

bool TracePages::copyTo(TracePiece& piece, std::uint64_t from, std::uint64_t to, const CContexts& contexts,
                        TraceFrame frame) {
    // A frame that begins here is told its length again, and the last page may have its end.
    std::uint64_t begin = from == 0 ? kPageSize : pages::nextBegin(from);
    const std::uint64_t last = pages::beginAt(to == m_size && to > 0 ? to - 1 : to);
    if (!piece.isPaged() || begin >= last || !isPageBegin(begin) || !isPageBegin(last))
        return putPackets(piece, from, to, contexts, frame);
    if (!putPackets(piece, from, begin, contexts, frame))
        return false;
    // What the piece has told must be what the pages take for told.
    CContexts here = contextsAt(begin);
    while (begin < last && !restatesAll(here, piece.contexts())) {
        if (!putPackets(piece, begin, begin + kPageSize, here, frame))
            return false;
        begin += kPageSize;
        here = contextsAt(begin);
    }
    if (begin < last && !holdsFrames(begin, last, frame)) {
        if (!piece.copyPages(*m_file, begin, last, contextsAt(last))) {
            if (piece.good())
                throw TraceError(m_path, platform::errorText(EIO));
            return false;
        }
        begin = last;
    }
    return putPackets(piece, begin, to, contextsAt(begin), frame);
}

} // namespace Quorvex
