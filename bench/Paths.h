#pragma once

#include <memory>
#include <span>

namespace bench {

/// A hot path of the library, or a limit of the machine beside it, set up and ready.
class Path {
public:
    virtual ~Path() = default;
    /// Lets that many packets go through, on from where the last call ended.
    virtual void run(unsigned packets) = 0;
    /// Of a packet in what is read or written; 0 where nothing is.
    virtual double bytes() const = 0;
};

struct PathRow {
    const char* name;
    const char* description;
    /// The path, over a trace of that many packets that begins anew when it is through; an even number of at least 200.
    std::unique_ptr<Path> (*make)(unsigned packets);
    bool isCounted; ///< its instructions are counted, and must not become more
};

/// Those that record do so where the environment tells programs to, in the calling thread.
std::span<const PathRow> paths();

} // namespace bench
