#include "quorvex/export/VCDIdentifier.h"

#include "quorvex/format/MessageQueue.h"

#include <cstring>
#include <ostream>
#include <string_view>

namespace Quorvex {

namespace {

constexpr unsigned kBase = 95;
constexpr unsigned kMaxDigits = 5; // 95^5 > 2^32

/// The code of `id`, at the end of `digits`.
std::string_view format(std::uint32_t id, char (&digits)[kMaxDigits]) {
    unsigned at = kMaxDigits;
    do
        digits[--at] = static_cast<char>('!' + id % kBase);
    while ((id /= kBase) != 0);
    return {digits + at, kMaxDigits - at};
}

} // namespace

bool CVCDIdentifier::write(std::ostream& out, std::uint32_t id) {
    char digits[kMaxDigits];
    const std::string_view code = format(id, digits);
    try {
        return out.write(code.data(), static_cast<std::streamsize>(code.size())).good();
    } catch (const std::exception& exception) {
        logException("CVCDIdentifier::write: Catched exception ", exception.what());
        return false;
    }
}

unsigned CVCDIdentifier::write(char* buf, unsigned size, std::uint32_t id) {
    char digits[kMaxDigits];
    const std::string_view code = format(id, digits);
    if (!buf || size < code.size())
        return 0;
    std::memcpy(buf, code.data(), code.size());
    return static_cast<unsigned>(code.size());
}

} // namespace Quorvex
