// A text is a mask if it has nothing but zeros and ones, and not too many; the mask's text and its bytes give it back.

#include "quorvex/packets/SignalMask.h"

#include "fuzz/Targets.h"

namespace Quorvex::fuzz {

void signalMask(const std::string& data) {
    const std::string text = data.substr(0, data.find('\0'));
    CSignalMask mask;
    const bool isMask = mask.assign(text);
    require(isMask == (text.size() <= CSignalMask::kMaxBits && text.find_first_not_of("01") == std::string::npos),
            "only texts of 0 and 1 are masks");
    if (!isMask)
        return;
    const auto bits = static_cast<unsigned>(text.size());
    std::string print(bits, '\0');
    unsigned written = 0;
    require(mask.print(print.data(), bits, written) && written == bits && print == text, "print");
    std::string wire(mask.size(), '\0');
    require(mask.write(wire.data(), mask.size(), written), "write");
    unsigned consumed = 0;
    CSignalMask read;
    require(read.read(wire.data(), static_cast<unsigned>(wire.size()), mask.size(), consumed), "read");
    require(read.resize(bits) && read == mask, "write and read");
}

} // namespace Quorvex::fuzz
