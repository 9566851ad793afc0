// A mask behaves as the vector of bits that a plain one would be, in all its operations; its text and its bytes give it
// back.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"

#include <algorithm>
#include <vector>

namespace Quorvex::fuzz {

namespace {

std::vector<bool> bitsOf(const CSignalMask& mask) {
    std::vector<bool> bits;
    for (unsigned i = 0; i < mask.bits(); ++i)
        bits.push_back(mask.test(i));
    return bits;
}

} // namespace

void signalMask(const std::uint8_t* data, std::size_t size) {
    const std::string any(reinterpret_cast<const char*>(data), size);
    CSignalMask fromAny;
    const bool isMask = fromAny.assign(any.substr(0, any.find('\0')));
    const std::string zeroEnded = any.substr(0, any.find('\0'));
    require(isMask ==
                (zeroEnded.size() <= CSignalMask::kMaxBits && zeroEnded.find_first_not_of("01") == std::string::npos),
            "only texts of 0 and 1 are masks");
    if (size < 4)
        return dropLog();

    const unsigned bits = (data[0] | static_cast<unsigned>(data[1]) << 8) % (CSignalMask::kMaxBits + 1);
    const std::vector<std::uint8_t> bytes(data, data + size);
    const unsigned known = std::min(bits, static_cast<unsigned>(size) * 8);
    CSignalMask mask(bits);
    mask.set(0, known, bytes.data());
    std::vector<bool> model(bits);
    for (unsigned i = 0; i < known; ++i)
        model[i] = (bytes[i / 8] >> i % 8 & 1) != 0;
    require(bitsOf(mask) == model, "bits from bytes");

    const unsigned from = bits > 0 ? data[2] % bits : 0;
    const unsigned count = bits > 0 ? data[3] % (bits - from + 1) : 0;
    CSignalMask changed = mask;
    changed.flip(from, count);
    const CSignalMask part = mask.submask(from, count);
    for (unsigned i = 0; i < bits; ++i)
        require(changed.test(i) == (model[i] != (i >= from && i < from + count)), "flip of a range");
    for (unsigned i = 0; i < count; ++i)
        require(part.test(i) == model[from + i], "a part");
    require((mask ^ changed).count() == count, "exclusive-or");
    require(((mask & changed) | (mask ^ changed)) == (mask | changed), "and, or, exclusive-or");
    require((~~mask) == mask && mask.count() + (~mask).count() == bits, "not");
    require(mask.submask(changed).bits() == changed.count(), "selected bits");
    if (bits * 2 <= CSignalMask::kMaxBits)
        require((mask + changed).submask(bits, bits) == changed, "one behind the other");

    std::string print(bits, '\0');
    unsigned written = 0;
    require(mask.print(print.data(), bits, written) && written == bits, "print");
    CSignalMask back;
    require(back.assign(print) && back == mask, "print and assign");
    std::string wire(mask.size(), '\0');
    require(mask.write(wire.data(), mask.size(), written), "write");
    unsigned consumed = 0;
    CSignalMask read;
    require(read.read(wire.data(), static_cast<unsigned>(wire.size()), mask.size(), consumed), "read");
    require(read.resize(bits) && read == mask, "write and read");
    dropLog();
}

} // namespace Quorvex::fuzz
