#include "quorvex/stream/PageFile.h"

#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/platform/Clock.h"
#include "quorvex/platform/RandomAccessFile.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceAutoBuffer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

namespace Quorvex::detail {

namespace {

/// Tells files of this layout and of this machine's byte order.
constexpr std::uint64_t kMark = 0x3145474150585651; // "QVXPAGE1"
constexpr unsigned kHead = 4096;
/// How a trace begins: with its trace-enabled packet, which is changed when the trace is completed, and the timestamp,
/// which is another one in each trace.
constexpr unsigned kBeginOffset = CPacketHeader::Len() + CTraceEnabled::Len();
constexpr unsigned kBeginSize = 16;

std::string pathFor(const std::string& trace) {
    return trace + ".page";
}

void keepOrder() {
    // The reader comes after the process, or finds out that the page has changed. So only the compiler must keep the
    // order of stores.
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

} // namespace

/// What the file holds; its numbers are in this machine's byte order.
struct PageFile::Shared {
    /// How far it is, changed as a whole. Beside the page, packets stand between two offsets.
    struct alignas(8) Progress {
        unsigned fill;
        std::uint16_t first;
        std::uint16_t end;
        bool operator==(const Progress&) const = default;
    };

    struct Head {
        std::uint64_t mark;
        std::uint64_t base;
        unsigned written;
        unsigned reserved;
        Progress progress;
        char begin[kBeginSize];
        alignas(2) char beside[kHead - 48];

        /// Where the page's part of the trace begins.
        std::uint64_t from() const { return base + written; }
        bool hasBeside() const { return progress.first != progress.end; }
    };

    /// Before each packet beside the page, two bytes tell its size, and whether it counts.
    static constexpr unsigned kUnfinished = 0x8000;
    static constexpr unsigned kForgotten = 0x4000;
    static constexpr unsigned kEntryHead = 2;
    static unsigned entrySize(unsigned packet) { return kEntryHead + packet + packet % 2; }

    std::atomic_ref<std::uint16_t> entry(unsigned offset) {
        return std::atomic_ref(*reinterpret_cast<std::uint16_t*>(head.beside + offset));
    }

    Head head;
    char page[kPageSize];
};

PageFile::~PageFile() {
    close();
}

bool PageFile::create(const std::string& trace) {
    close();
    m_path = pathFor(trace);
    platform::RandomAccessFile file;
    m_error = file.create(m_path.c_str());
    if (m_error != 0) {
        m_path.clear();
        return false;
    }
    // Written rather than just made long: a full disk must fail here, where it can be told, and not in a store.
    void* const zeros = platform::allocatePages(sizeof(Shared));
    unsigned written = 0;
    m_error = zeros ? file.write(static_cast<const char*>(zeros), sizeof(Shared), 0, written) : ENOMEM;
    if (zeros)
        platform::freePages(zeros, sizeof(Shared));
    if (m_error == 0 && open(file.map(sizeof(Shared), m_error)))
        return true;
    file.close();
    std::remove(m_path.c_str());
    m_path.clear();
    return false;
}

bool PageFile::create() {
    close();
    return open(platform::allocatePages(sizeof(Shared)));
}

bool PageFile::open(void* memory) {
    static_assert(offsetof(Shared, page) == kHead && std::atomic_ref<Shared::Progress>::is_always_lock_free);
    if (!memory)
        return false;
    m_shared = static_cast<Shared*>(memory);
    m_fill = &m_shared->head.progress.fill;
    std::memcpy(m_shared->head.begin, m_begin, kBeginSize);
    m_shared->head.mark = kMark;
    return true;
}

char* PageFile::page() {
    return m_shared->page;
}

void PageFile::restart(std::uint64_t base, unsigned written, unsigned fill) {
    // Nothing of the page counts on the way.
    Shared::Head& head = m_shared->head;
    extend(0);
    keepOrder();
    head.base = base;
    head.written = written;
    keepOrder();
    extend(fill);
}

void PageFile::identify() {
    std::memcpy(m_begin, m_shared->page + kBeginOffset, kBeginSize);
    std::memcpy(m_shared->head.begin, m_begin, kBeginSize);
}

char* PageFile::reserve(unsigned size, std::uint64_t& tick) {
    const std::atomic_ref progress(m_shared->head.progress);
    while (true) {
        Shared::Progress now = progress.load();
        if (size >= Shared::kForgotten || Shared::entrySize(size) > sizeof m_shared->head.beside - now.end)
            return nullptr;
        // Behind the end all is 0, but for the head of one that is interrupted here. A handler that takes the place
        // meanwhile changes the head, and leaves it as that of a packet that is finished.
        const auto entry = m_shared->entry(now.end);
        std::uint16_t free = entry.load();
        Shared::Progress next = now;
        next.end = static_cast<std::uint16_t>(now.end + Shared::entrySize(size));
        tick = platform::g_recordingClock.now();
        if (progress.load() == now &&
            entry.compare_exchange_strong(free, static_cast<std::uint16_t>(size | Shared::kUnfinished)) &&
            progress.compare_exchange_strong(now, next))
            return m_shared->head.beside + now.end + Shared::kEntryHead;
    }
}

void PageFile::finish(char* room, bool whole) {
    const auto offset = static_cast<unsigned>(room - m_shared->head.beside) - Shared::kEntryHead;
    keepOrder();
    const auto entry = m_shared->entry(offset);
    entry.store(static_cast<std::uint16_t>((entry.load() & ~Shared::kUnfinished) | (whole ? 0 : Shared::kForgotten)));
}

const char* PageFile::oldest(unsigned& size) {
    while (true) {
        const Shared::Progress now = std::atomic_ref(m_shared->head.progress).load();
        if (now.first >= now.end)
            return nullptr;
        const unsigned entry = m_shared->entry(now.first).load();
        size = entry & ~(Shared::kUnfinished | Shared::kForgotten);
        if (size == entry)
            return m_shared->head.beside + now.first + Shared::kEntryHead;
        moved(now.fill); // not finished: the handler was left by a jump, or with the thread
    }
}

void PageFile::moved(unsigned fill) {
    const std::atomic_ref progress(m_shared->head.progress);
    const Shared::Progress now = progress.load();
    const unsigned entry = m_shared->entry(now.first).load();
    const unsigned size = Shared::entrySize(entry & ~(Shared::kUnfinished | Shared::kForgotten));
    if (now.first + size < now.end) {
        progress.store({fill, static_cast<std::uint16_t>(now.first + size), now.end});
        return;
    }
    progress.store({fill, 0, 0});
    keepOrder();
    std::memset(m_shared->head.beside, 0, now.end);
}

void PageFile::unmap() {
    if (m_shared && isShared())
        platform::RandomAccessFile::unmap(m_shared, sizeof(Shared));
    else if (m_shared)
        platform::freePages(m_shared, sizeof(Shared));
    m_shared = nullptr;
    m_fill = nullptr;
}

void PageFile::close() {
    unmap();
    m_path.clear();
}

void PageFile::remove() {
    unmap();
    if (isShared())
        std::remove(m_path.c_str());
    m_path.clear();
}

bool isPageFile(std::string_view start) {
    std::uint64_t mark = 0;
    if (start.size() >= sizeof mark)
        std::memcpy(&mark, start.data(), sizeof mark);
    return mark == kMark;
}

void removePageFile(const std::string& trace) {
    std::remove(pathFor(trace).c_str());
}

namespace {

/// The bytes of a file up to a position, and then those that are given.
class JoinedBuffer : public std::streambuf {
public:
    JoinedBuffer(std::streambuf& file, std::uint64_t from, std::vector<char> tail)
        : m_file(file), m_from(from), m_tail(std::move(tail)) {}

protected:
    int_type underflow() override {
        m_position += static_cast<std::uint64_t>(egptr() - eback());
        setg(nullptr, nullptr, nullptr);
        if (m_position >= m_from) {
            const auto passed = static_cast<std::size_t>(std::min<std::uint64_t>(m_position - m_from, m_tail.size()));
            setg(m_tail.data() + passed, m_tail.data() + passed, m_tail.data() + m_tail.size());
        } else {
            const auto room = static_cast<std::streamsize>(std::min<std::uint64_t>(kBlockSize, m_from - m_position));
            m_file.pubseekpos(static_cast<std::streamoff>(m_position));
            const std::streamsize count = m_file.sgetn(m_block, room);
            char* const block = m_block;
            setg(block, block, block + std::max<std::streamsize>(count, 0));
        }
        return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

    pos_type seekoff(off_type offset, std::ios::seekdir direction, std::ios::openmode) override {
        std::uint64_t start = 0;
        if (direction == std::ios::cur)
            start = m_position + static_cast<std::uint64_t>(gptr() - eback());
        else if (direction == std::ios::end)
            start = m_from + m_tail.size();
        return seek(static_cast<std::streamoff>(start) + offset);
    }
    pos_type seekpos(pos_type position, std::ios::openmode) override { return seek(position); }

private:
    pos_type seek(std::streamoff position) {
        if (position < 0)
            return pos_type(off_type(-1));
        m_position = static_cast<std::uint64_t>(position);
        setg(nullptr, nullptr, nullptr);
        return position;
    }

    std::streambuf& m_file;
    std::uint64_t m_from;
    std::vector<char> m_tail;
    CTraceAutoBuffer m_block;
    std::uint64_t m_position = 0; ///< of the first byte between the pointers for reading
};

} // namespace

std::unique_ptr<std::streambuf> joinPageFile(std::istream& trace, const std::string& path) {
    const auto appendBeside = [](const PageFile::Shared::Head& head, std::vector<char>& tail) {
        using Shared = PageFile::Shared;
        for (unsigned at = head.progress.first; at + Shared::kEntryHead <= head.progress.end;) {
            std::uint16_t entry = 0;
            std::memcpy(&entry, head.beside + at, sizeof entry);
            const unsigned size = entry & ~(Shared::kUnfinished | Shared::kForgotten);
            const char* packet = head.beside + at + Shared::kEntryHead;
            at += Shared::entrySize(size);
            if (size == entry && at <= head.progress.end)
                tail.insert(tail.end(), packet, packet + size);
        }
    };
    std::ifstream file(pathFor(path), std::ios::binary);
    const auto readHead = [&file](PageFile::Shared::Head& head) {
        return file.seekg(0) && file.read(reinterpret_cast<char*>(&head), sizeof head) && head.mark == kMark &&
               head.progress.fill <= kPageSize && head.progress.first <= head.progress.end &&
               head.progress.end <= sizeof head.beside &&
               (head.progress.fill == 0 || head.written <= head.progress.fill);
    };
    const auto has = [&trace](std::uint64_t position, const char* bytes, std::size_t count) {
        std::vector<char> found(count);
        return count == 0 || (trace.seekg(static_cast<std::streamoff>(position)) &&
                              trace.read(found.data(), static_cast<std::streamsize>(count)) &&
                              std::memcmp(found.data(), bytes, count) == 0);
    };
    // While the process still runs, the page may be begun anew as it is read.
    PageFile::Shared::Head head{}, after{};
    std::vector<char> page;
    std::uint64_t from = 0;
    bool fits = false;
    do {
        if (!readHead(head))
            return nullptr;
        page.resize(head.progress.fill);
        if (!file.seekg(kHead) || !file.read(page.data(), head.progress.fill))
            return nullptr;
        // It belongs to the trace if that begins as it should, and has nothing that is not in the page, too.
        trace.seekg(0, std::ios::end);
        const auto size = static_cast<std::uint64_t>(std::streamoff(trace.tellg()));
        // A page that is being begun anew has nothing, and all that is before it is in the trace's file.
        from = page.empty() ? size : head.from();
        page.erase(page.begin(), page.begin() + (page.empty() ? 0 : head.written));
        fits = size >= from && size <= from + page.size() &&
               (size < kBeginOffset + kBeginSize || has(kBeginOffset, head.begin, kBeginSize)) &&
               has(from, page.data(), static_cast<std::size_t>(size - from));
        trace.clear();
        trace.seekg(0);
    } while (!readHead(after) || after.from() != head.from() || (head.hasBeside() && after.progress != head.progress));
    if (!fits)
        return nullptr;
    appendBeside(head, page);
    return std::make_unique<JoinedBuffer>(*trace.rdbuf(), from, std::move(page));
}

} // namespace Quorvex::detail
