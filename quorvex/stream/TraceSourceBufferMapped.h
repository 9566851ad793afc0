#pragma once

#include "quorvex/platform/MappedFile.h"
#include "quorvex/stream/TraceBufferState.h"
#include "quorvex/stream/TraceSourceBuffer.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Quorvex {

/// Bytes of a file that is mapped into memory, where a CTraceCursor walks through them without a copy:
///
///     CTraceSourceBufferMapped file;
///     if (file.open(path))
///         walk(CTraceCursor(file.bytes()));
///
/// It reads as CTraceSourceBufferFile does, and sees in the same way what others add to the file or take from it:
/// read() copies out of the file. bytes() is for files that nobody makes shorter meanwhile: looking at memory whose
/// file has been cut ends the program (SIGBUS), unless the system keeps mapped files from being cut, and asking for the
/// size before each look would only make it rarer. Whoever reads files that others may cut, as a program does that is
/// given any trace, reads in large blocks instead. That costs little: of a file that the system has in its memory, a
/// copy into a block that stays in the cache and the look at mapped memory take about the same time.
///
/// Used by one thread at a time; but any number may look at bytes() and release() parts of them.
class QUORVEX_API CTraceSourceBufferMapped : public CTraceSourceBuffer {
public:
    CTraceSourceBufferMapped();
    CTraceSourceBufferMapped(const CTraceSourceBufferMapped&) = delete;
    CTraceSourceBufferMapped& operator=(const CTraceSourceBufferMapped&) = delete;
    ~CTraceSourceBufferMapped() override;

    /// Maps the file, to be read from its start; one that is open is closed first. False for a null path, or with
    /// error() set. Some files are left to CTraceSourceBufferFile: ENOTSUP tells of a pipe or a device, ENODATA of an
    /// empty file, EFBIG of one too large for the addresses of the process, and EBUSY of a trace whose end stands in a
    /// page file because a program records it or was killed.
    bool open(const char* path);
    bool open(const std::string& path) { return open(path.c_str()); }
    bool close(); ///< whether it is closed now
    bool is_open() const { return m_file.isOpen(); }
    /// The system's error number (errno) of the last open that failed.
    int error() const { return m_error; }

    /// The whole file, as long as it was when it was opened; empty when none is open. Holds until it is closed.
    std::string_view bytes() const { return {m_file.memory(), m_file.mapped()}; }
    /// What stands between these positions is not needed soon: the process need not keep it in its memory. So the
    /// memory that a walk through a large file takes does not grow. It can be looked at again.
    void release(std::uint64_t from, std::uint64_t to) const;

    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override;
    bool read(char* dst, unsigned count, unsigned& got) override;
    bool eof() override { return m_state.eof(); }
    bool good() override { return m_state.good(); }
    void clear() override { m_state.clear(); }
    std::uint64_t position() override { return m_state.fail() ? 0 : m_position; }
    std::uint64_t size() override;
    void flush() override {}

private:
    void seek(std::uint64_t position);

    platform::MappedFile m_file;
    CTraceBufferState m_state;
    std::uint64_t m_position = 0;
    int m_error = 0;
};

} // namespace Quorvex
