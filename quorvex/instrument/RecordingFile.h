#pragma once

#include "quorvex/platform/RandomAccessFile.h"
#include "quorvex/stream/TraceSinkBuffer.h"

#include <string>

namespace Quorvex::detail {

/// Where the environment says that a program is to be recorded: QVX_TRACEDIR and QVX_TRACEFILENAME.
struct QUORVEX_API RecordingPlace {
    RecordingPlace();

    std::string directory;
    std::string prefix; ///< of files; empty when none is given
    bool isTooLong() const;
    /// The path of a file with that number, without an ending: with `defaultPrefix` where none is given.
    std::string stem(const char* defaultPrefix, unsigned number) const;
};

/// The file that a recording thread writes its pages to. It never replaces a file that is there.
///
/// Of all such files of a process, at most kMostOpen are open at a time: those that were written last. The others are
/// opened again when they are written, so that a program with thousands of threads has descriptors left for itself.
/// Bytes go to the system at once, and a write that the system breaks off is gone on with where it was. No signal
/// handler runs in the thread meanwhile, it is not cancelled, and its errno stays. A file belongs to one thread at a
/// time.
class QUORVEX_API RecordingFile : public CTraceSinkBuffer {
public:
    static constexpr unsigned kMostOpen = 16;

    RecordingFile() = default;
    RecordingFile(const RecordingFile&) = delete;
    RecordingFile& operator=(const RecordingFile&) = delete;
    ~RecordingFile() override { rest(); }

    /// Makes `stem` + ".qvx", or, where that is there already, `stem` + "-2.qvx" and so on, each by trying to: so a
    /// name costs the more the more of them are taken, and behind 100 000 it fails with EEXIST. False with error() set.
    bool create(const std::string& stem);
    /// The path of the file, or the one that could not be made.
    const std::string& path() const { return m_path; }
    /// The system's error number (errno) of the last open, write or truncate(); 0 when it went well.
    int error() const { return m_error; }
    /// Gives the descriptor back until the next write.
    void rest();
    /// Drops what stands behind that many bytes; the next write without a position goes there. False with error() set.
    bool truncate(std::uint64_t size);

    /// Gives the place of bytes back to the disk; they read as zeros from then on. False where that is not possible,
    /// which is no error of the file.
    bool release(std::uint64_t position, std::uint64_t size);

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override;
    bool write(const char* src, unsigned count, unsigned& written) override {
        return write(src, count, m_position, written);
    }
    bool eof() override { return false; }
    bool good() override { return m_error == 0; }
    void flush() override {}
    void clear() override { m_error = 0; }
    std::uint64_t tellp() override { return m_position; }

    /// Keep the set of open files as it is: no other is opened, none is given back, but one that is open may be written
    /// to its end. Where no signal handler can come between.
    static void lockAll();
    static void unlockAll();
    /// The same while it lives.
    class Held {
    public:
        Held() { lockAll(); }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        ~Held() { unlockAll(); }
    };
    /// In the child of a fork before which the set was locked: lets go of the files of the parent.
    static void forgetAll();

private:
    class Pool;
    template <class Work> bool withOpen(Work&& work);

    platform::RandomAccessFile m_file;
    std::string m_path;
    std::uint64_t m_position = 0;
    int m_error = 0;
};

} // namespace Quorvex::detail
