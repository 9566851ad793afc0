#include "quorvex/packets/SignalMask.h"

#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/Attempt.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <istream>
#include <ostream>
#include <stdexcept>

namespace Quorvex {

namespace {

/// A word whose low `count` bits are 1.
constexpr std::uint64_t lowBits(unsigned count) {
    return count >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1;
}

void checkRange(unsigned from, unsigned count, unsigned bits, const char* failure) {
    if (from > bits || count > bits - from)
        throw std::range_error(failure);
}

constexpr char kSetRange[] = "CSignalMask::set: Argument exceeds size";
constexpr char kResetRange[] = "CSignalMask::reset: Argument exceeds size";
constexpr char kFlipRange[] = "CSignalMask::flip: Argument exceeds size";

} // namespace

CSignalMask::CSignalMask(const char* text) {
    if (!text || !assign(text))
        CQVXException::ThrowRuntime(
            "CSignalMask: Read-In constructor invalid initialisation string to constructor provided");
}

CSignalMask::CSignalMask(unsigned bits, const unsigned char* bytes) : CSignalMask(bits) {
    if (bytes)
        std::memcpy(m_words.data(), bytes, size());
    clearTail();
}

CSignalMask::CSignalMask(const CSignalMask& other) = default;
CSignalMask& CSignalMask::operator=(const CSignalMask& other) = default;

CSignalMask& CSignalMask::operator=(const char* text) {
    if (!text || !assign(text))
        CQVXException::ThrowRuntime("CSignalMask::operator=: Invalid string in assignment");
    return *this;
}

bool CSignalMask::assign(const std::string& text) {
    if (text.find_first_not_of("01") != std::string::npos || !resize(static_cast<unsigned>(text.size()))) {
        allocate(0);
        return false;
    }
    reset();
    for (unsigned bit = 0; bit < m_bits; ++bit) {
        if (text[bit] == '1')
            set(bit);
    }
    return true;
}

void CSignalMask::allocate(unsigned bits) {
    if (bits > kMaxBits)
        throw std::length_error("CSignalMask: Requested allocation of more than maximal allowed signal bits.");
    m_bits = bits;
    m_words.fill(0);
}

void CSignalMask::clearTail() {
    if (m_bits % kWordBits != 0)
        m_words[m_bits / kWordBits] &= lowBits(m_bits % kWordBits);
    std::fill(m_words.begin() + words(), m_words.end(), 0);
}

bool CSignalMask::resize(unsigned bits) {
    try {
        CSignalMask fresh(bits);
        fresh.m_words = m_words;
        fresh.clearTail();
        *this = fresh;
        return true;
    } catch (const std::exception& exception) {
        logException("CSignalMask::resize: Catched exception ", exception.what());
        return false;
    }
}

CSignalMask::Word CSignalMask::wordAt(unsigned from) const {
    const unsigned index = from / kWordBits;
    const unsigned shift = from % kWordBits;
    Word word = index < kWords ? m_words[index] >> shift : 0;
    if (shift != 0 && index + 1 < kWords)
        word |= m_words[index + 1] << (kWordBits - shift);
    return word;
}

template <class Change> void CSignalMask::forRange(unsigned from, unsigned count, Change&& change) {
    for (unsigned done = 0; done < count;) {
        const unsigned shift = (from + done) % kWordBits;
        const unsigned part = std::min(count - done, kWordBits - shift);
        change(m_words[(from + done) / kWordBits], lowBits(part) << shift, done, shift);
        done += part;
    }
}

CSignalMask& CSignalMask::set() {
    m_words.fill(~Word{0});
    clearTail();
    return *this;
}

CSignalMask& CSignalMask::set(unsigned bit, bool value) {
    checkRange(bit, 1, m_bits, kSetRange);
    const Word mask = Word{1} << bit % kWordBits;
    Word& word = m_words[bit / kWordBits];
    word = value ? word | mask : word & ~mask;
    return *this;
}

CSignalMask& CSignalMask::set(unsigned from, unsigned count, const unsigned char* bytes) {
    checkRange(from, count, m_bits, kSetRange);
    const CSignalMask source(count, bytes);
    forRange(from, count, [&source](Word& word, Word selected, unsigned done, unsigned shift) {
        word = (word & ~selected) | ((source.wordAt(done) << shift) & selected);
    });
    return *this;
}

CSignalMask& CSignalMask::reset() {
    m_words.fill(0);
    return *this;
}

CSignalMask& CSignalMask::reset(unsigned bit) {
    checkRange(bit, 1, m_bits, kResetRange);
    return set(bit, false);
}

CSignalMask& CSignalMask::reset(unsigned from, unsigned count) {
    checkRange(from, count, m_bits, kResetRange);
    forRange(from, count, [](Word& word, Word selected, unsigned, unsigned) { word &= ~selected; });
    return *this;
}

CSignalMask& CSignalMask::flip() {
    return flip(0, m_bits);
}

CSignalMask& CSignalMask::flip(unsigned bit) {
    checkRange(bit, 1, m_bits, kFlipRange);
    return flip(bit, 1);
}

CSignalMask& CSignalMask::flip(unsigned from, unsigned count) {
    checkRange(from, count, m_bits, kFlipRange);
    forRange(from, count, [](Word& word, Word selected, unsigned, unsigned) { word ^= selected; });
    return *this;
}

bool CSignalMask::test(unsigned bit) const {
    checkRange(bit, 1, m_bits, "CSignalMask::test: Argument exceeds size");
    return (m_words[bit / kWordBits] >> bit % kWordBits & 1) != 0;
}

bool CSignalMask::any() const {
    return std::any_of(m_words.begin(), m_words.end(), [](Word word) { return word != 0; });
}

unsigned CSignalMask::count() const {
    unsigned sum = 0;
    for (const Word word : m_words)
        sum += static_cast<unsigned>(std::popcount(word));
    return sum;
}

bool CSignalMask::operator==(const CSignalMask& other) const {
    return m_bits == other.m_bits && m_words == other.m_words;
}

std::strong_ordering CSignalMask::operator<=>(const CSignalMask& other) const {
    const auto numbers = std::lexicographical_compare_three_way(m_words.rbegin(), m_words.rend(),
                                                                other.m_words.rbegin(), other.m_words.rend());
    return numbers != 0 ? numbers : m_bits <=> other.m_bits;
}

CSignalMask CSignalMask::operator~() const {
    return CSignalMask(*this).flip();
}

template <class Combine>
CSignalMask& CSignalMask::combine(const CSignalMask& other, const char* failure, Combine&& combine) {
    if (m_bits != other.m_bits)
        throw std::range_error(failure);
    std::transform(m_words.begin(), m_words.end(), other.m_words.begin(), m_words.begin(), combine);
    return *this;
}

#define QUORVEX_MASK_OPERATOR(op, function)                                                                            \
    CSignalMask CSignalMask::operator op(const CSignalMask& other) const {                                             \
        return CSignalMask(*this).combine(                                                                             \
            other, "CSignalMask::operator" #op ": Method is not allowed to be called with differing lengths.",         \
            function());                                                                                               \
    }                                                                                                                  \
    CSignalMask& CSignalMask::operator op##=(const CSignalMask& other) {                                               \
        return combine(other,                                                                                          \
                       "CSignalMask::operator" #op "=: Method is not allowed to be called with differing lengths.",    \
                       function());                                                                                    \
    }

QUORVEX_MASK_OPERATOR(&, std::bit_and)
QUORVEX_MASK_OPERATOR(|, std::bit_or)
QUORVEX_MASK_OPERATOR(^, std::bit_xor)
#undef QUORVEX_MASK_OPERATOR

void CSignalMask::append(Word bits, unsigned count) {
    const unsigned shift = m_bits % kWordBits;
    const unsigned index = m_bits / kWordBits;
    m_words[index] |= bits << shift;
    if (shift != 0 && count > kWordBits - shift)
        m_words[index + 1] |= bits >> (kWordBits - shift);
    m_bits += count;
}

CSignalMask CSignalMask::operator+(const CSignalMask& other) const {
    return CSignalMask(*this) += other;
}

CSignalMask& CSignalMask::operator+=(const CSignalMask& other) {
    const CSignalMask tail(other); // which may be this one
    CSignalMask sum(m_bits + tail.m_bits);
    sum.m_words = m_words;
    sum.m_bits = m_bits;
    for (unsigned at = 0; at < tail.m_bits; at += kWordBits)
        sum.append(tail.wordAt(at), std::min(kWordBits, tail.m_bits - at));
    return *this = sum;
}

CSignalMask CSignalMask::submask(unsigned from, unsigned count) const {
    checkRange(from, count, m_bits, "CSignalMask::submask: Argument exceeds size");
    CSignalMask result(count);
    for (unsigned at = 0; at < count; at += kWordBits)
        result.m_words[at / kWordBits] = wordAt(from + at);
    result.clearTail();
    return result;
}

CSignalMask CSignalMask::submask(const CSignalMask& mask) const {
    if (m_bits != mask.m_bits)
        throw std::range_error("CSignalMask::submask: Method is not allowed to be called with differing lengths.");
    CSignalMask result;
    for (unsigned index = 0; index < words(); ++index) {
        for (Word selected = mask.m_words[index]; selected != 0; selected &= selected - 1)
            result.append(m_words[index] >> std::countr_zero(selected) & 1, 1);
    }
    return result;
}

bool CSignalMask::print(std::ostream& out) const {
    char text[kMaxBits];
    unsigned written = 0;
    return print(text, sizeof text, written) && (written == 0 || out.write(text, written).good());
}

bool CSignalMask::print(char* buf, unsigned size, unsigned& written) const {
    if (size < m_bits || (m_bits > 0 && !buf))
        return false;
    for (unsigned bit = 0; bit < m_bits; ++bit)
        buf[bit] = static_cast<char>('0' + (m_words[bit / kWordBits] >> bit % kWordBits & 1));
    written = m_bits;
    return true;
}

bool CSignalMask::read(std::istream& in, unsigned bytes) {
    allocate(0);
    char raw[kMaxBits / 8];
    unsigned consumed = 0;
    const auto step = [&] { return bytes <= sizeof raw && (bytes == 0 || in.read(raw, bytes)); };
    return attempt(step,
                   [](const std::exception& exception) {
                       logException("CSignalMask::read: catched exception ", exception.what());
                   }) &&
           read(raw, sizeof raw, bytes, consumed);
}

bool CSignalMask::read(const char* buf, unsigned size, unsigned bytes, unsigned& consumed) {
    allocate(0);
    if (size < bytes || bytes > kMaxBits / 8 || (bytes > 0 && !buf))
        return false;
    allocate(bytes * 8);
    if (bytes > 0)
        std::memcpy(m_words.data(), buf, bytes);
    consumed = bytes;
    return true;
}

bool CSignalMask::write(std::ostream& out) const {
    return m_bits == 0 || attempt([&] { return out.write(reinterpret_cast<const char*>(data()), size()).good(); });
}

bool CSignalMask::write(char* buf, unsigned bufSize, unsigned& written) const {
    if (m_bits == 0) {
        written = 0;
        return true;
    }
    if (!buf || bufSize < size())
        return false;
    std::memcpy(buf, m_words.data(), size());
    written = size();
    return true;
}

} // namespace Quorvex
