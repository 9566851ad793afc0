#include "quorvex/analysis/Sha256.h"

#include <bit>

namespace Quorvex {

namespace {

/// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::uint32_t kRoots[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

std::uint32_t loadBigEndian(const char* from) {
    const auto byte = [from](int at) { return std::uint32_t{static_cast<unsigned char>(from[at])}; };
    return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
}

template <class T> void storeBigEndian(void* to, T value) {
    auto* bytes = static_cast<unsigned char*>(to);
    for (std::size_t i = sizeof value; i > 0; value = static_cast<T>(value >> 8))
        bytes[--i] = static_cast<unsigned char>(value);
}

} // namespace

void Sha256::addBlock(const char* block) {
    // The schedule is a ring: a word is replaced by the one 16 rounds behind it.
    std::uint32_t words[16];
    for (std::size_t i = 0; i < 16; ++i)
        words[i] = loadBigEndian(block + 4 * i);
    auto [a, b, c, d, e, f, g, h] = m_state;
    const auto round = [&words](unsigned at, unsigned of, std::uint32_t va, std::uint32_t vb, std::uint32_t vc,
                                std::uint32_t& vd, std::uint32_t ve, std::uint32_t vf, std::uint32_t vg,
                                std::uint32_t& vh) {
        vh += (std::rotr(ve, 6) ^ std::rotr(ve, 11) ^ std::rotr(ve, 25)) + ((ve & vf) ^ (~ve & vg)) + kRoots[at] +
              words[of];
        vd += vh;
        vh += (std::rotr(va, 2) ^ std::rotr(va, 13) ^ std::rotr(va, 22)) + ((va & vb) ^ (va & vc) ^ (vb & vc));
    };
    for (unsigned at = 0; at < 64; at += 16) {
        // Eight rounds bring each variable back to its place.
        for (unsigned i = 0; i < 16; i += 8) {
            round(at + i + 0, i + 0, a, b, c, d, e, f, g, h);
            round(at + i + 1, i + 1, h, a, b, c, d, e, f, g);
            round(at + i + 2, i + 2, g, h, a, b, c, d, e, f);
            round(at + i + 3, i + 3, f, g, h, a, b, c, d, e);
            round(at + i + 4, i + 4, e, f, g, h, a, b, c, d);
            round(at + i + 5, i + 5, d, e, f, g, h, a, b, c);
            round(at + i + 6, i + 6, c, d, e, f, g, h, a, b);
            round(at + i + 7, i + 7, b, c, d, e, f, g, h, a);
        }
        for (unsigned i = 0; i < 16 && at < 48; ++i) {
            const std::uint32_t w15 = words[(i + 1) % 16], w2 = words[(i + 14) % 16];
            words[i] += (std::rotr(w15, 7) ^ std::rotr(w15, 18) ^ w15 >> 3) + words[(i + 9) % 16] +
                        (std::rotr(w2, 17) ^ std::rotr(w2, 19) ^ w2 >> 10);
        }
    }
    const std::uint32_t sums[] = {a, b, c, d, e, f, g, h};
    for (unsigned i = 0; i < m_state.size(); ++i)
        m_state[i] += sums[i];
}

void Sha256::add(std::string_view bytes) {
    const std::size_t held = m_size % kBlock;
    m_size += bytes.size();
    if (held > 0) {
        const std::size_t taken = bytes.copy(m_block + held, kBlock - held);
        bytes.remove_prefix(taken);
        if (held + taken < kBlock)
            return;
        addBlock(m_block);
    }
    for (; bytes.size() >= kBlock; bytes.remove_prefix(kBlock))
        addBlock(bytes.data());
    bytes.copy(m_block, kBlock);
}

Sha256::Digest Sha256::finish() {
    char end[2 * kBlock] = {'\x80'};
    const std::size_t padding = kBlock - (m_size + 8) % kBlock;
    storeBigEndian(end + padding, 8 * m_size);
    add({end, padding + 8});
    Digest digest;
    for (std::size_t i = 0; i < m_state.size(); ++i)
        storeBigEndian(&digest[4 * i], m_state[i]);
    return digest;
}

} // namespace Quorvex
