#pragma once

#include "quorvex/platform/Owned.h"
#include "quorvex/stream/TraceSinkBufferStream.h"

#include <iosfwd>
#include <string>

namespace Quorvex {

namespace detail {
/// Holds the stream so that it is built before the base that writes it.
struct QUORVEX_API OutputFile {
    OutputFile();
    ~OutputFile();
    std::ostream& stream() const;

    const platform::Owned<std::ofstream> m_file;
};
} // namespace detail

/// Bytes to a file. For a file opened for append, tellp() counts from the file's real start.
class QUORVEX_API CTraceSinkBufferFile : private detail::OutputFile, public CTraceSinkBufferStream {
public:
    CTraceSinkBufferFile() : CTraceSinkBufferStream(stream()) {}
    ~CTraceSinkBufferFile() override;

    /// Opens the file, anew or, with `append`, behind what it holds; a missing file is made either way. One that is
    /// there but cannot be appended to is refused, and never emptied. A file that is open is closed first. False for a
    /// null path, or with error() set.
    bool open(const char* path, bool append);
    bool open(const std::string& path, bool append) { return open(path.c_str(), append); }
    /// True when no file is open afterwards; what could not be written out sets the failure bit.
    bool close();
    bool is_open() const;
    /// The system's error number (errno) of the last open, write or close that failed; EIO where it tells none.
    int error() const { return m_error; }

    using CTraceSinkBufferStream::write;
    bool write(const char* src, unsigned count, unsigned& written) override;
    void flush() override;

private:
    template <class Step> bool noting(Step&& step);

    int m_error = 0;
};

} // namespace Quorvex
