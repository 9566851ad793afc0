#pragma once

#include "quorvex/platform/Owned.h"
#include "quorvex/stream/TraceSourceBufferStream.h"

#include <iosfwd>
#include <string>

namespace Quorvex {

namespace detail {
/// Holds the stream so that it is built before the base that reads it.
struct QUORVEX_API InputFile {
    InputFile();
    ~InputFile();
    std::istream& stream() const;

    const platform::Owned<std::ifstream> m_file;
    platform::Owned<std::streambuf> m_joined; ///< where a killed program has left the end of the trace elsewhere
};
} // namespace detail

/// Bytes of a file. Of a trace that a program recorded in the mapped mode until it was killed, or records now, they are
/// the whole: what stands in the file PATH.page comes behind what the file itself has.
class QUORVEX_API CTraceSourceBufferFile : private detail::InputFile, public CTraceSourceBufferStream {
public:
    CTraceSourceBufferFile() : CTraceSourceBufferStream(stream()) {}
    ~CTraceSourceBufferFile() override;

    /// Opens the file for reading from its start; a file that is open is closed first. False for a null path, or with
    /// error() set.
    bool open(const char* path);
    bool open(const std::string& path) { return open(path.c_str()); }
    bool close(); ///< whether it is closed now
    bool is_open() const;
    /// Whether the end of the trace stands in a page file, because a program records it or was killed.
    bool is_joined() const { return bool(m_joined); }
    /// The system's error number (errno) of the last open that failed.
    int error() const { return m_error; }

private:
    int m_error = 0;
};

} // namespace Quorvex
