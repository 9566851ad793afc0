#pragma once

#include "quorvex/stream/TraceSinkBufferFile.h"
#include "quorvex/stream/TraceWriterPaged.h"
#include "quorvex/stream/TraceWriterPlain.h"

namespace Quorvex {

namespace detail {
/// Holds the file so that it is built before the writer on it.
struct SinkFile {
    CTraceSinkBufferFile m_file;
};
} // namespace detail

/// A writer that owns the file it writes to. Destruction flushes and closes; close() does so with a result.
template <class Writer> class CTraceFileWriter : private detail::SinkFile, public Writer {
public:
    /// Opens the file, anew or behind what it holds. Where that fails, is_open() is false and error() tells why.
    explicit CTraceFileWriter(const char* path, bool append = false) : Writer(m_file) {
        m_failed = !m_file.open(path, append);
        this->check_initial_pos();
    }
    explicit CTraceFileWriter(const std::string& path, bool append = false) : CTraceFileWriter(path.c_str(), append) {}
    ~CTraceFileWriter() { close(); }
    CTraceFileWriter(const CTraceFileWriter&) = delete;
    CTraceFileWriter& operator=(const CTraceFileWriter&) = delete;

    bool is_open() const { return m_file.is_open(); }
    /// The system's error number of the failed open or close.
    int error() const { return m_file.error(); }
    /// True when everything has reached the file.
    bool close() {
        if (!m_file.is_open())
            return !m_failed;
        this->flush();
        m_failed = !m_file.good();
        m_failed = !m_file.close() || !m_file.good() || m_failed;
        return !m_failed;
    }

private:
    bool m_failed = false;
};

/// Writes a file of packets one after the other.
using CTraceFileWriterPlain = CTraceFileWriter<CTraceWriterPlain>;
/// Writes a file of pages.
using CTraceFileWriterPaged = CTraceFileWriter<CTraceWriterPaged>;

} // namespace Quorvex
