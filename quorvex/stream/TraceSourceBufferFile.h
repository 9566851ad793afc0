#pragma once

#include "quorvex/stream/TraceSourceBufferStream.h"

#include <fstream>

namespace Quorvex {

namespace detail {
/// Holds the stream so that it is built before the base that reads it.
struct InputFile {
    std::ifstream m_file;
};
} // namespace detail

/// Bytes of a file.
class QUORVEX_API CTraceSourceBufferFile : private detail::InputFile, public CTraceSourceBufferStream {
public:
    CTraceSourceBufferFile() : CTraceSourceBufferStream(m_file) {}
    ~CTraceSourceBufferFile() override;

    /// Opens the file for reading from its start; a file that is open is closed first. False for a null path, or with
    /// error() set.
    bool open(const char* path);
    bool close();
    bool is_open() const { return m_file.is_open(); }
    /// The system's error number (errno) of the last open that failed.
    int error() const { return m_error; }

private:
    int m_error = 0;
};

} // namespace Quorvex
