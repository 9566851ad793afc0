// On 32-bit systems a file of more than 2 GiB must be asked for, before the first header.
#define _FILE_OFFSET_BITS 64

#include "quorvex/platform/TemporaryFile.h"

#include "quorvex/platform/System.h"

#include <cstdlib>
#include <string>

#if !defined(_WIN32)
#include <unistd.h>
#endif

namespace Quorvex::platform {

namespace {

#if defined(_WIN32)

std::FILE* open() {
    // D deletes the file when it is closed, T keeps it out of the disk's cache where there is memory.
    char* name = _tempnam(nullptr, "quorvex");
    std::FILE* file = name ? std::fopen(name, "w+bTD") : nullptr;
    std::free(name);
    return file;
}

#else

std::FILE* open() {
    std::string name;
    for (const char* variable : {"TMPDIR", "TEMP", "TMP"}) {
        if (name.empty())
            name = environment(variable);
    }
    name = (name.empty() ? defaultTemporaryDirectory() : name) + "/quorvex_XXXXXX";
    const int descriptor = mkstemp(name.data());
    if (descriptor < 0)
        return nullptr;
    unlink(name.c_str());
    std::FILE* file = fdopen(descriptor, "w+b");
    if (!file)
        close(descriptor);
    return file;
}

#endif

} // namespace

bool TemporaryFile::write(const char* bytes, std::size_t size) {
    if (size == 0)
        return m_good;
    if (!m_file && m_good)
        m_file.reset(open());
    m_good = m_file && std::fwrite(bytes, 1, size, m_file.get()) == size;
    return m_good;
}

bool TemporaryFile::rewind() {
    m_good = m_good && (!m_file || std::fseek(m_file.get(), 0, SEEK_SET) == 0);
    return m_good;
}

std::size_t TemporaryFile::read(char* bytes, std::size_t size) {
    if (!m_file || !m_good)
        return 0;
    const std::size_t got = std::fread(bytes, 1, size, m_file.get());
    m_good = got == size || std::ferror(m_file.get()) == 0;
    return got;
}

} // namespace Quorvex::platform
