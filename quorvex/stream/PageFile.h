#pragma once

#include "quorvex/platform/Atomic.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace Quorvex::detail {

/// The page that a recording thread is filling. Kept in a file of its own beside the trace, in memory that is shared
/// with that file, what a process has put there is in the file whatever becomes of the process; joinPageFile() reads
/// the two as one trace. Or it is kept in plain memory. It belongs to one thread at a time.
///
/// Of the page, the bytes from `written` to `fill` are the end of the trace; those before them are in the trace's file.
/// A packet counts from the moment when `fill` passes its end, which is a single store. There is no guarantee about
/// crashes of the system.
///
/// Beside the page there is room for packets that come while another one is being put, from a signal handler: they
/// follow what is in the page until they are moved there. A packet is at any time in one of the two.
class QUORVEX_API PageFile {
public:
    PageFile() = default;
    PageFile(const PageFile&) = delete;
    PageFile& operator=(const PageFile&) = delete;
    ~PageFile();

    /// Makes the file, all zeros, so that the disk has room for all of it from now on. False with error() set, an error
    /// number of the system (errno), and nothing left behind; EEXIST where anything has its name, which may be memory
    /// of some process. To be called where no signal handler can come between.
    bool create(const std::string& trace);
    /// The same in plain memory.
    bool create();
    bool is_open() const { return m_shared != nullptr; }
    /// Whether it is in a file, and so outlives the process.
    bool isShared() const { return !m_path.empty(); }
    int error() const { return m_error; }
    /// kPageSize bytes, as long as it is open.
    char* page();

    /// The trace goes on at offset `fill` of a page whose first byte has the position `base` in the trace; the trace's
    /// file has what stands before `written`.
    void restart(std::uint64_t base, unsigned written, unsigned fill);
    /// The page has been filled so far. Only for a page that is open.
    void extend(unsigned fill) { platform::storeRelease(*m_fill, fill); }
    /// Takes note of how the trace begins, with the page that has its beginning. By that a file is known to belong to a
    /// trace and not to another one of the same name.
    void identify();

    /// Room for a packet, with its texts, beside the page; null when there is none. To be followed by finish(). A
    /// signal handler that interrupts either may do the same for another packet, and may end the process. `tick` is the
    /// time as the room was taken: a packet that stands behind another has no earlier one.
    char* reserve(unsigned size, std::uint64_t& tick);
    /// The packet stands in its room; `whole` is false when it does not and the room is to be forgotten.
    void finish(char* room, bool whole);
    /// The oldest packet beside the page, of `size` bytes; null when there is none. Like moved() only where no handler
    /// can come between.
    const char* oldest(unsigned& size);
    /// The oldest packet beside the page now stands in it, which is filled so far.
    void moved(unsigned fill);

    /// Leaves the file behind.
    void close();
    /// The trace's file has everything: the page's is no longer needed.
    void remove();

private:
    struct Shared;
    friend std::unique_ptr<std::streambuf> joinPageFile(std::istream& trace, const std::string& path);

    bool open(void* memory);
    void unmap();

    Shared* m_shared = nullptr;
    unsigned* m_fill = nullptr;
    std::string m_path;
    char m_begin[16] = {}; ///< what identify() has found; it holds for all page files of the trace
    int m_error = 0;
};

/// Whether these are the first bytes of a page file.
QUORVEX_API bool isPageFile(std::string_view start);

/// Removes the page file that an earlier recording to the trace of that path has left.
QUORVEX_API void removePageFile(const std::string& trace);

/// Where the page file of the trace stands beside it: the bytes of the trace with the packets that its file lacks, for
/// reading and seeking; else null. `trace` is open, is left at its beginning, and must outlive the result.
QUORVEX_API std::unique_ptr<std::streambuf> joinPageFile(std::istream& trace, const std::string& path);

} // namespace Quorvex::detail
