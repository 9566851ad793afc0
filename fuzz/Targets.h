#pragma once

/// The fuzz targets. Each takes any bytes, and aborts when what its source says at the top does not hold. A file is one
/// target, named after what it feeds.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace Quorvex::fuzz {

using Target = void (*)(const std::uint8_t* data, std::size_t size);

void packet(const std::uint8_t* data, std::size_t size);
void reader(const std::uint8_t* data, std::size_t size);
void pages(const std::uint8_t* data, std::size_t size);
void compressor(const std::uint8_t* data, std::size_t size);
void text(const std::uint8_t* data, std::size_t size);
void table(const std::uint8_t* data, std::size_t size);
void viewers(const std::uint8_t* data, std::size_t size);
void signalMask(const std::uint8_t* data, std::size_t size);
void verbs(const std::uint8_t* data, std::size_t size);

struct NamedTarget {
    const char* name;
    Target run;
};

inline constexpr NamedTarget kTargets[] = {
    {"packet", packet}, {"reader", reader},   {"pages", pages},           {"compressor", compressor}, {"text", text},
    {"table", table},   {"viewers", viewers}, {"signalMask", signalMask}, {"verbs", verbs},
};

/// Ends the program with a message where a property does not hold.
inline void require(bool holds, const char* property) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
}

} // namespace Quorvex::fuzz
