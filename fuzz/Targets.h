#pragma once

/// The fuzz targets. Each takes any bytes, and aborts when what its source says at the top does not hold. A file is one
/// target, named after what it feeds.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace Quorvex::fuzz {

void packet(const std::string& data);
void reader(const std::string& data);
void cursor(const std::string& data);
void pages(const std::string& data);
void compressor(const std::string& data);
void text(const std::string& data);
void table(const std::string& data);
void viewers(const std::string& data);
void signalMask(const std::string& data);
void verbs(const std::string& data);
void import(const std::string& data);

using Target = void (*)(const std::string& data);

inline constexpr std::pair<const char*, Target> kTargets[] = {
    {"packet", packet},         {"reader", reader}, {"cursor", cursor}, {"pages", pages},
    {"compressor", compressor}, {"text", text},     {"table", table},   {"viewers", viewers},
    {"signalMask", signalMask}, {"verbs", verbs},   {"import", import},
};

/// Ends the program with a message where a property does not hold.
inline void require(bool holds, const char* property) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
}

} // namespace Quorvex::fuzz
