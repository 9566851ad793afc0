#include "FunctionIds.h"

#include <string>

namespace qvx {

namespace {

/// FNV-1a with 32 bits.
std::uint32_t hash(std::string_view text, std::uint32_t state) {
    for (const char c : text)
        state = (state ^ static_cast<unsigned char>(c)) * 0x01000193;
    return state;
}

/// Means no function, or is for those that get a new number where traces are merged.
bool isReserved(std::uint32_t id) {
    return id == 0 || id >= 0xFFF00000;
}

} // namespace

std::uint32_t FunctionIds::give(std::string_view name, std::string_view file, unsigned line) {
    std::string text(name);
    text += '\0';
    text += file;
    text += '\0';
    text += std::to_string(line);
    std::uint32_t id = hash(text, 0x811C9DC5);
    bool collides = false;
    while (isReserved(id) || !m_taken.insert(id).second) {
        collides = collides || !isReserved(id);
        id = hash(std::string_view("", 1), id);
    }
    m_collisions += collides;
    return id;
}

} // namespace qvx
