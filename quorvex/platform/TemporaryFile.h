#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/OutputFile.h"

#include <cstddef>
#include <cstdint>

namespace Quorvex::platform {

/// A file without a name, gone when it is closed or the program ends. It is made in temporaryDirectory() by the first
/// write. First it is written, then read.
class QUORVEX_API TemporaryFile {
public:
    /// False from the first write on that has failed: a part may be missing then.
    bool write(const char* bytes, std::size_t size);
    /// Goes to a place, to read from there.
    bool seek(std::uint64_t position);
    /// Bytes read, 0 at the end.
    std::size_t read(char* bytes, std::size_t size);
    bool good() const { return m_good; }
    /// Why it is not good, an error number of the system (errno).
    int error() const { return m_file.error(); }

private:
    OutputFile m_file;
    bool m_good = true;
};

} // namespace Quorvex::platform
