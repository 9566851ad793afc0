#include "quorvex/stream/TraceParts.h"

#include "quorvex/platform/Attempt.h"
#include "quorvex/stream/TraceSourceBufferMapped.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <limits>
#include <thread>

namespace Quorvex {

TraceAt::~TraceAt() = default;

OpensTrace::~OpensTrace() = default;

TraceWalk TraceWalk::of(const TraceAt& trace) {
    const CTraceCursor& cursor = trace.cursor;
    const bool hasFailed = trace.source && !trace.source->good() && !trace.source->eof();
    return {cursor.end(), cursor.contexts(), cursor.damage(), cursor.left(), cursor.cutCode(), hasFailed};
}

namespace detail {

PartsWork::~PartsWork() = default;

namespace {

constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();

struct Part {
    std::uint64_t begin = 0;
    std::uint64_t end = kNoEnd;
    bool isWalked = false;
    CContexts contexts; ///< where it begins, as the page before it tells
    TraceWalk walk;
};

bool areSame(const CContexts& a, const CContexts& b) {
    const auto knowSame = [&](ContextSort sort) { return a.knows(sort) == b.knows(sort); };
    return a.core() == b.core() && a.bus() == b.bus() && a.system() == b.system() && knowSame(ContextSort::Core) &&
           knowSame(ContextSort::Bus) && knowSame(ContextSort::System);
}

/// Has `walk(cursor, end)` walk on in steps, between which what was passed is given back.
template <class Walk> void walkTo(std::uint64_t end, TraceAt& at, Walk&& walk) {
    constexpr std::uint64_t kStep = std::uint64_t{32} * kPageSize;
    std::uint64_t next = 0;
    do {
        next = at.cursor.end() < end && end - at.cursor.end() > kStep ? at.cursor.end() + kStep : end;
        walk(at.cursor, next);
        at.passed();
    } while (next < end && at.cursor.end() >= next);
}

void goOn(TraceWalk& walk, const TraceWalk& next) {
    TraceDamage damage = walk.damage;
    damage.join(next.damage);
    walk = next;
    walk.damage = damage;
}

/// The parts that a trace is walked in, of which the first may begin anywhere.
std::vector<Part> partsOf(std::uint64_t begin, std::uint64_t size, const TraceShares& shares, unsigned threads) {
    const std::uint64_t least = std::max<std::uint64_t>(shares.least, kPageSize);
    size = std::min(size, shares.until);
    std::uint64_t count = size > begin ? std::min<std::uint64_t>((size - begin) / least, shares.most) : 0;
    count -= count > threads ? count % threads : 0; // so that all have the same to do
    if (threads < 2 || count < 2)
        count = 1;
    std::vector<Part> parts(static_cast<std::size_t>(count));
    parts[0].begin = begin;
    for (std::size_t i = 1; i < parts.size(); ++i) {
        parts[i].begin = parts[i - 1].end = pages::nextBegin(begin + (size - begin) / count * i);
    }
    parts.back().end = shares.until;
    return parts;
}

/// Walks through a part ahead of the whole, if it seems to begin with a packet.
bool walkAhead(std::size_t number, Part& part, const OpensTrace& open, PartsWork& work) {
    const auto at = open.at(part.begin - kPageSize, CContexts());
    CTraceCursor& cursor = at->cursor;
    while (cursor.end() < part.begin && cursor.next()) {
    }
    if (cursor.end() != part.begin || cursor.damage().places > 0)
        return false;
    part.contexts = cursor.contexts();
    walkTo(part.end, *at, [&](CTraceCursor&, std::uint64_t end) { work.walkPart(number, cursor, end); });
    part.walk = TraceWalk::of(*at);
    return !part.walk.hasFailed;
}

/// Walks through parts ahead of the whole, in several threads. What fails is left to the walk through the whole.
class Ahead {
public:
    Ahead(std::vector<Part>& parts, const OpensTrace& open, PartsWork& work, unsigned threads)
        : m_parts(parts), m_open(open), m_work(work) {
        attempt([&] { // fewer do as well
            for (std::size_t i = 1; i < threads && i < parts.size(); ++i)
                m_threads.push_back(std::async(std::launch::async, [this] { walk(); }));
            return true;
        });
    }
    ~Ahead() { m_next = m_parts.size(); } // the threads end with their parts, and are waited for

    /// Takes part in it until all parts are walked.
    void finish() {
        walk();
        m_threads.clear();
    }

private:
    void walk() {
        for (std::size_t i = m_next++; i < m_parts.size(); i = m_next++)
            m_parts[i].isWalked = attempt([&] { return walkAhead(i, m_parts[i], m_open, m_work); });
    }

    std::vector<Part>& m_parts;
    const OpensTrace& m_open;
    PartsWork& m_work;
    std::atomic<std::size_t> m_next = 1;
    std::vector<std::future<void>> m_threads;
};

} // namespace

TraceWalk walkInParts(TraceAt& first, std::uint64_t size, const OpensTrace& open, PartsWork& work,
                      const TraceShares& shares) {
    const unsigned threads = shares.threads > 0 ? shares.threads : std::thread::hardware_concurrency();
    std::vector<Part> parts = partsOf(first.cursor.end(), size, shares, std::max(threads, 1U));
    work.begin(parts.size());
    Ahead ahead(parts, open, work, threads);
    const auto walkWhole = [&work](CTraceCursor& cursor, std::uint64_t end) { work.walkWhole(cursor, end); };
    walkTo(parts[0].end, first, walkWhole);
    TraceWalk whole = TraceWalk::of(first);
    ahead.finish();
    bool isOver = whole.end < parts[0].end;
    for (std::size_t i = 1; i < parts.size() && !isOver; ++i) {
        const Part& part = parts[i];
        if (part.isWalked && part.begin == whole.end && areSame(part.contexts, whole.contexts)) {
            work.join(i);
            goOn(whole, part.walk);
        } else {
            work.drop(i);
            if (whole.end < part.end) {
                const auto at = open.at(whole.end, whole.contexts);
                walkTo(part.end, *at, walkWhole);
                goOn(whole, TraceWalk::of(*at));
            }
        }
        isOver = whole.end < part.end;
    }
    return whole;
}

TraceWalk walkInParts(std::string_view trace, PartsWork& work, const TraceShares& shares) {
    const OpensTraceBy open([trace](std::uint64_t position, const CContexts& contexts) {
        return platform::makeOwned<TraceAt>(trace.substr(static_cast<std::size_t>(position)), position, contexts);
    });
    return walkInParts(*open.at(0, CContexts()), trace.size(), open, work, shares);
}

TraceWalk walkInParts(const CTraceSourceBufferMapped& trace, PartsWork& work, const TraceShares& shares) {
    struct MappedAt : TraceAt {
        MappedAt(const CTraceSourceBufferMapped& file, std::uint64_t position, const CContexts& contexts)
            : TraceAt(file.bytes().substr(static_cast<std::size_t>(position)), position, contexts),
              mapped(file),
              from(position) {}
        void passed() override {
            mapped.release(from, cursor.end());
            from = cursor.end();
        }

        const CTraceSourceBufferMapped& mapped;
        std::uint64_t from;
    };
    const OpensTraceBy open([&trace](std::uint64_t position, const CContexts& contexts) {
        return platform::makeOwned<MappedAt>(trace, position, contexts);
    });
    return walkInParts(*open.at(0, CContexts()), trace.bytes().size(), open, work, shares);
}

} // namespace detail

} // namespace Quorvex
