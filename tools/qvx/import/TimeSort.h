#pragma once

#include "quorvex/platform/OutputFile.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace qvx {

/// Puts records in the order of their times, as many as there are in little memory: what does not fit goes to a
/// temporary file. Throws Failure where that cannot be written.
class TimeSort {
public:
    TimeSort();
    TimeSort(const TimeSort&) = delete;
    TimeSort& operator=(const TimeSort&) = delete;
    ~TimeSort();

    /// Of those with the same time the one with the lower rank comes first, and of these the one that was added first.
    void add(std::uint64_t time, std::uint64_t rank, std::string_view record);

    /// Goes to the first record, then to the next one; false behind the last. None is added any more.
    bool next();
    std::uint64_t time() const { return m_now.time; }
    std::string_view record() const { return m_record; } ///< valid until next()

private:
    struct Entry {
        std::uint64_t time = 0;
        std::uint64_t rank = 0;
        std::uint32_t size = 0;
        std::uint32_t at = 0; ///< in m_bytes
    };
    class Run;

    void sortEntries();
    void writeRun();

    std::vector<char> m_bytes;
    std::vector<Entry> m_entries; ///< of m_bytes
    std::size_t m_entry = 0;      ///< the next one, when they are sorted
    std::vector<std::unique_ptr<Run>> m_runs;
    std::vector<Run*> m_heap; ///< runs that go on, the one with the next record in front
    Quorvex::platform::OutputFile m_file;
    std::uint64_t m_size = 0; ///< of the file
    Entry m_now;
    std::string_view m_record;
    bool m_isSorted = false;
};

} // namespace qvx
