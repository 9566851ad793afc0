#pragma once

#include "quorvex/platform/RandomAccessFile.h"
#include "quorvex/stream/TraceSinkBuffer.h"

#include <string>

namespace Quorvex::detail {

/// The file that a recording thread writes its pages to. It never replaces a file that is there.
///
/// Of all such files of a process, at most kMostOpen are open at a time: those that were written last. The others are
/// opened again when they are written, so that a program with thousands of threads has descriptors left for itself.
/// Bytes go to the system at once, and nothing is lost or written twice when a write is begun again. No signal handler
/// runs in the thread meanwhile, it is not cancelled, and its errno stays. A file belongs to one thread at a time.
class QUORVEX_API RecordingFile : public CTraceSinkBuffer {
public:
    static constexpr unsigned kMostOpen = 16;

    RecordingFile() = default;
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;
    ~RecordingFile() override { rest(); }

    /// Makes `stem` + ".qvx", or, where that is there already, `stem` + "-2.qvx" and so on. False with error() set.
    bool create(const std::string& stem);
    /// The path of the file, or the one that could not be made.
    const std::string& path() const { return m_path; }
    /// The system's error number (errno) of the last failure.
    int error() const { return m_error; }
    /// Gives the descriptor back until the next write.
    void rest();
    /// The next write without a position goes there.
    void moveTo(std::uint64_t position) { m_position = position; }

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override;
    bool write(const char* src, unsigned count, unsigned& written) override {
        return write(src, count, m_position, written);
    }
    bool eof() override { return false; }
    bool good() override { return m_error == 0; }
    void flush() override {}
    void clear() override { m_error = 0; }
    std::uint64_t tellp() override { return m_position; }

    /// Hold all such files at rest; and, in the child of a fork that has found them so, let go of those of the parent.
    static void lockAll();
    static void unlockAll();
    static void forgetAll();

private:
    class Pool;

    platform::RandomAccessFile m_file;
    std::string m_path;
    std::uint64_t m_position = 0;
    int m_error = 0;
};

} // namespace Quorvex::detail
