#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/FileIdentity.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Quorvex::platform {

/// What a path or a descriptor leads to, links followed.
struct QUORVEX_API FileStatus {
    /// What stands under a name.
    enum Sort {
        Missing,
        Regular,
        Device, ///< of characters
        Fifo,
        Directory,
        Other, ///< block devices, sockets
    };

    Sort sort = Missing;     ///< what stands there
    FileIdentity identity;   ///< which file that is
    bool isWritable = false; ///< the process may write to it, and replace it if it is Regular
    int error = 0;           ///< why it cannot be told, an error number of the system (errno); then it is Missing

    /// Of a name, or of an open file.
    static FileStatus of(const std::string& path);
    static FileStatus of(int descriptor);
};

/// Where a path leads when its last part is a link, or a link to a link: the path of what is there, or could be made
/// there. `descriptor` gets the open descriptor of the process that it names instead, as /dev/stdout and /dev/fd/N do;
/// else -1. An error number of the system (errno), or 0.
QUORVEX_API int followLinks(std::string& path, int& descriptor);

/// A file that is open for writing. One that create() has made has a name that is nobody's, beside the place it is for,
/// until place() gives it its own; otherwise nothing is left of it, whatever ends the object or, by a signal, the
/// process. What can fail gives false with error() set, an error number of the system (errno). One thread at a time.
class QUORVEX_API OutputFile {
public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { close(); }

    /// Makes a file in a directory (empty: the working directory), which can be read too. Until it is placed, only its
    /// owner may; then those whom the process grants that in a new file.
    bool create(const std::string& directory);
    /// Opens a device of characters or a FIFO, as it is.
    bool open(const std::string& path);
    /// Writes where a descriptor of the process stands, which stays open.
    bool attach(int descriptor);
    bool is_open() const { return m_descriptor >= 0; }

    bool write(const char* bytes, std::size_t size);
    bool seek(std::uint64_t position); ///< where the next write goes
    /// Bytes read; 0 at the end and for a failure.
    std::size_t read(char* bytes, std::size_t size);
    /// The system's number of the last operation that failed; 0 behind a read() or close() that went well.
    int error() const { return m_error; }

    /// Closes the file that create() has made until resume(), so that a program can have more of them than it may have
    /// open.
    bool pause();
    /// Opens it again where it was; nothing is done if it is open. The error is ENOENT where it is gone.
    bool resume();
    /// Closes the file that create() has made and gives it its name, in the directory it was made in. A regular file of
    /// that name is replaced only if `replaces`, and leaves its mode and, where that is allowed, its owner; otherwise
    /// the error is EEXIST.
    bool place(const std::string& path, bool replaces);
    /// Takes the file that create() has made its name: it is gone when it is closed, and cannot be placed.
    void unname();
    /// Closes. What create() has made and place() has not placed is removed.
    bool close();

    /// Prepares a program for its whole life. The signals that end a process first have every file removed that is not
    /// in its place; those that are ignored stay so, and a file beyond the limit for its size is no longer a signal but
    /// a failed write. Standard streams that are closed fail when they are used, and no file gets their descriptors.
    static void prepareProcess();

private:
    bool failed();
    void remember();
    void forget();
    static void removeAll(int signal);

    int m_descriptor = -1;
    int m_error = 0;
    std::string m_path;          ///< its name until it is placed
    FileIdentity m_identity;     ///< while it is paused
    std::int64_t m_position = 0; ///< likewise
    // All that have such a name, for whoever is told of the end of the process.
    OutputFile* m_next = nullptr;
    static OutputFile* g_first;
};

} // namespace Quorvex::platform
