#pragma once

#include "quorvex/platform/Export.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Quorvex {

/// The Secure Hash Algorithm of 256 bits, as FIPS 180-4 defines it.
class QUORVEX_API Sha256 {
public:
    using Digest = std::array<unsigned char, 32>; ///< its bytes, the first one first

    /// Goes on with these bytes.
    void add(std::string_view bytes);
    /// The digest of all bytes so far. Nothing can be added behind it.
    Digest finish();

private:
    static constexpr std::size_t kBlock = 64;

    void addBlock(const char* block);

    // From the fractional parts of the square roots of the first 8 primes.
    std::array<std::uint32_t, 8> m_state{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                         0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::uint64_t m_size = 0; ///< bytes so far
    char m_block[kBlock];     ///< the last ones, which do not fill a block
};

} // namespace Quorvex
