#include "TimeSort.h"

#include "../Verbs.h"
#include "quorvex/platform/System.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

namespace qvx {

using namespace Quorvex;

namespace {

constexpr std::size_t kMostBytes = std::size_t{16} << 20; ///< in memory at a time
constexpr std::size_t kBlock = std::size_t{64} << 10;     ///< read at a time

[[noreturn]] void failFor(const platform::OutputFile& file) {
    throw Failure("temporary file", platform::errorText(file.error() ? file.error() : EIO));
}

} // namespace

/// A part of the records, in order, that is read from the file.
class TimeSort::Run {
public:
    Run(platform::OutputFile& file, std::size_t number, std::uint64_t from, std::uint64_t to)
        : m_file(file), m_number(number), m_from(from), m_to(to) {}

    bool next() {
        if (!read(sizeof(Entry)))
            return false;
        std::memcpy(&m_entry, m_block.data() + m_at, sizeof m_entry);
        m_at += sizeof m_entry;
        if (!read(m_entry.size))
            failFor(m_file);
        m_at += m_entry.size;
        return true;
    }
    const Entry& entry() const { return m_entry; }
    std::string_view record() const { return {m_block.data() + m_at - m_entry.size, m_entry.size}; }
    auto order() const { return std::tuple(m_entry.time, m_entry.rank, m_number); }

private:
    /// Whether so many bytes more are in the block.
    bool read(std::size_t size) {
        const std::size_t left = m_block.size() - m_at;
        if (left >= size)
            return true;
        m_block.erase(m_block.begin(), m_block.begin() + static_cast<std::ptrdiff_t>(m_at));
        m_at = 0;
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(std::max(kBlock, size), m_to - m_from));
        m_block.resize(left + count);
        for (std::size_t got = 0; got < count;) {
            const std::size_t more = m_file.seek(m_from) ? m_file.read(m_block.data() + left + got, count - got) : 0;
            if (more == 0)
                failFor(m_file);
            got += more;
            m_from += more;
        }
        return m_block.size() >= size && size > 0;
    }

    platform::OutputFile& m_file;
    std::size_t m_number;
    std::uint64_t m_from, m_to; ///< what has not been read
    std::vector<char> m_block;
    std::size_t m_at = 0;
    Entry m_entry;
};

TimeSort::TimeSort() = default;
TimeSort::~TimeSort() = default;

void TimeSort::add(std::uint64_t time, std::uint64_t rank, std::string_view record) {
    if (m_bytes.size() + m_entries.size() * sizeof(Entry) + record.size() > kMostBytes && !m_entries.empty())
        writeRun();
    m_entries.push_back(
        {time, rank, static_cast<std::uint32_t>(record.size()), static_cast<std::uint32_t>(m_bytes.size())});
    m_bytes.insert(m_bytes.end(), record.begin(), record.end());
}

void TimeSort::sortEntries() {
    // Records stand in the order in which they were added, which the place in the bytes tells but of empty ones.
    std::ranges::stable_sort(m_entries, {}, [](const Entry& entry) { return std::tuple(entry.time, entry.rank); });
}

void TimeSort::writeRun() {
    if (!m_file.is_open()) {
        if (!m_file.create(platform::temporaryDirectory()))
            failFor(m_file);
        m_file.unname();
    }
    sortEntries();
    const std::uint64_t from = m_size;
    std::vector<char> block;
    const auto flush = [&] {
        if (!m_file.write(block.data(), block.size()))
            failFor(m_file);
        m_size += block.size();
        block.clear();
    };
    for (const Entry& entry : m_entries) {
        const char* bytes = reinterpret_cast<const char*>(&entry);
        block.insert(block.end(), bytes, bytes + sizeof entry);
        block.insert(block.end(), m_bytes.data() + entry.at, m_bytes.data() + entry.at + entry.size);
        if (block.size() >= kBlock)
            flush();
    }
    flush();
    m_runs.push_back(std::make_unique<Run>(m_file, m_runs.size(), from, m_size));
    m_entries.clear();
    m_bytes.clear();
}

bool TimeSort::next() {
    constexpr auto isLater = [](const Run* one, const Run* other) { return one->order() > other->order(); };
    if (!m_isSorted) {
        m_isSorted = true;
        if (m_runs.empty()) {
            sortEntries();
        } else {
            writeRun();
            for (const auto& run : m_runs) {
                if (run->next())
                    m_heap.push_back(run.get());
            }
            std::ranges::make_heap(m_heap, isLater);
        }
    } else if (!m_heap.empty()) { // its record has been told
        std::ranges::pop_heap(m_heap, isLater);
        if (m_heap.back()->next())
            std::ranges::push_heap(m_heap, isLater);
        else
            m_heap.pop_back();
    }
    if (m_runs.empty()) {
        if (m_entry == m_entries.size())
            return false;
        m_now = m_entries[m_entry++];
        m_record = {m_bytes.data() + m_now.at, m_now.size};
        return true;
    }
    if (m_heap.empty())
        return false;
    m_now = m_heap.front()->entry();
    m_record = m_heap.front()->record();
    return true;
}

} // namespace qvx
