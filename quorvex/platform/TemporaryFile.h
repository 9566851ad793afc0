#pragma once

#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdio>
#include <memory>

namespace Quorvex::platform {

/// A file without a name, gone when it is closed or the program ends. It is made in the directory for temporary files
/// (TMPDIR, TEMP or TMP, else the system's) by the first write. First it is written, then read.
class QUORVEX_API TemporaryFile {
public:
    bool write(const char* bytes, std::size_t size);
    /// Goes back to the start, to read.
    bool rewind();
    /// Bytes read, 0 at the end.
    std::size_t read(char* bytes, std::size_t size);
    bool good() const { return m_good; }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::unique_ptr<std::FILE, Close> m_file;
    bool m_good = true;
};

} // namespace Quorvex::platform
