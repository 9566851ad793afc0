#pragma once

#include "quorvex/stream/TraceSinkBuffer.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Quorvex {
class CTraceCursor;
}

namespace qvx {

class Target;

/// Opens a target, and gives what takes the bytes of a trace for it. Standard output cannot be gone back in: it may be
/// a pipe, or end a longer file.
std::unique_ptr<Quorvex::CTraceSinkBuffer> makeSink(Target& target);

/// Whether a file can be gone back in, and has a trace in pages.
bool isFileOfPages(const std::string& path);

/// Whether a trace is one of pages, as its first page tells once it is read. Till then that makes no difference.
class LayoutSeen {
public:
    /// True for the packet that tells.
    bool look(const Quorvex::CTraceCursor& packet);
    bool isPaged() const { return m_isPaged; }

private:
    bool m_isKnown = false;
    bool m_isPaged = true;
};

/// Fails for a packet that a piece has refused.
[[noreturn]] void failToWrite(Target& target, const std::string& input, std::uint64_t offset);

} // namespace qvx
