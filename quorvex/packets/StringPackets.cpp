#include "quorvex/packets/StringPackets.h"

#include "quorvex/format/Characters.h"
#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/PacketImplementation.h"
#include "quorvex/platform/Attempt.h"
#include "quorvex/platform/FreeList.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <limits>
#include <new>
#include <ostream>
#include <type_traits>
#include <vector>

namespace Quorvex {

namespace {

const unsigned char* asBytes(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

/// Writes one CharString packet; the caller has made room.
char* putCharString(char* to, const unsigned char* bytes, unsigned length) {
    *to++ = static_cast<char>(CharString);
    *to++ = static_cast<char>(length);
    if (length > 0)
        std::memcpy(to, bytes, length);
    return to + length;
}

bool writeQuietly(std::ostream& out, const char* bytes, unsigned size) {
    return attempt([&] { return out.write(bytes, size).good(); });
}

bool readQuietly(std::istream& in, char* bytes, unsigned size) {
    return attempt([&] { return in.read(bytes, size).good(); });
}

/// Whether a CharString packet comes next. A stream may be set to throw at its end; then nothing comes.
bool textIsNext(std::istream& in) {
    return attempt([&] { return in.good() && in.peek() == static_cast<int>(CharString); });
}

void checkCode(const CPacketHeader& header) {
    if (header.TraceCode() != CharString)
        CQVXException::ThrowReadConstructor("CCharString: Read-In constructor invalid header data supplied.");
}

unsigned char* takeBytes(unsigned length) {
    auto* bytes = static_cast<unsigned char*>(platform::takeBlock(length, std::nothrow));
    if (!bytes)
        CQVXException::ThrowOutOfMemory();
    return bytes;
}

/// A length as the 32 bits that a text's is told in. A longer text finds no memory.
unsigned textLength(std::uint64_t length) {
    if (length > std::numeric_limits<unsigned>::max())
        CQVXException::ThrowOutOfMemory();
    return static_cast<unsigned>(length);
}

} // namespace

CCharString::CCharString(const char* text) : CCharString() {
    if (text)
        assign(asBytes(text), static_cast<unsigned char>(std::min<std::size_t>(std::strlen(text), kCharStringMax)));
}

CCharString::CCharString(const CPacketHeader& header, std::istream& in) : CPacket(header) {
    checkCode(header);
    if (!readQuietly(in, reinterpret_cast<char*>(m_bytes.data()), header.Length()))
        CQVXException::ThrowReadConstructor("CCharString: Read-In constructor could not read payload.");
}

CCharString::CCharString(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)
    : CPacket(header) {
    checkCode(header);
    if (!buf || size < header.Length())
        CQVXException::ThrowReadConstructor("CCharString: Read-In constructor could not read payload.");
    std::memcpy(m_bytes.data(), buf, header.Length());
    consumed = header.Length();
}

void CCharString::assign(const unsigned char* bytes, unsigned char length) {
    if (!bytes)
        length = 0;
    std::memmove(m_bytes.data(), bytes ? bytes : m_bytes.data(), length);
    SetLength(length);
}

unsigned CCharString::read(const char* buf, unsigned size) {
    CPacketHeader header;
    if (!header.read(buf, size) || header.TraceCode() != kCode || header.Length() > size - CPacketHeader::Len())
        return 0;
    SetLength(static_cast<std::uint8_t>(header.Length()));
    std::memcpy(m_bytes.data(), buf + CPacketHeader::Len(), header.Length());
    return StreamSize();
}

bool CCharString::read(std::istream& in) {
    CPacketHeader header;
    if (!header.read(in))
        return false;
    try {
        *this = CCharString(header, in);
        return true;
    } catch (const CQVXException&) {
        return false;
    }
}

unsigned CCharString::write(char* buf, unsigned size) {
    if (!buf || size < StreamSize())
        return 0;
    CPacketHeader::write(buf, size);
    std::memcpy(buf + CPacketHeader::Len(), m_bytes.data(), Length());
    return StreamSize();
}

bool CCharString::write(std::ostream& out) {
    return CPacketHeader::write(out) && writeQuietly(out, reinterpret_cast<const char*>(m_bytes.data()), Length());
}

CCharStringSequencePayload& CCharStringSequencePayload::operator=(const CCharStringSequencePayload& other) {
    if (this != &other)
        assign(other.data(), other.length());
    return *this;
}

void CCharStringSequencePayload::assign(const unsigned char* bytes, unsigned length) {
    unsigned char* fresh = nullptr;
    if (bytes && length > 0) {
        fresh = takeBytes(length);
        std::memcpy(fresh, bytes, length);
    }
    replace(fresh, length);
}

void CCharStringSequencePayload::append(const unsigned char* bytes, unsigned length) {
    if (!bytes || length == 0)
        return;
    if (length > ~0U - m_length)
        CQVXException::ThrowOutOfMemory();
    unsigned char* const fresh = takeBytes(m_length + length);
    if (m_length > 0)
        std::memcpy(fresh, m_bytes, m_length);
    std::memcpy(fresh + m_length, bytes, length);
    replace(fresh, m_length + length);
}

unsigned char* CCharStringSequencePayload::refill(unsigned length) {
    replace(length > 0 ? takeBytes(length) : nullptr, length);
    return m_bytes;
}

void CCharStringSequencePayload::clear() {
    replace(nullptr, 0);
}

void CCharStringSequencePayload::replace(unsigned char* bytes, unsigned length) {
    if (m_bytes) {
        platform::overwrite(m_bytes, 0, m_length);
        platform::giveBlock(m_bytes, m_length);
    }
    m_bytes = bytes;
    m_length = bytes ? length : 0;
}

CCharStringSequence::CCharStringSequence(const unsigned char* bytes, unsigned length) : CCharStringSequence() {
    assign(bytes, length);
    SetHeaderLength();
}

CCharStringSequence::CCharStringSequence(const char* text)
    : CCharStringSequence(asBytes(text), text ? textLength(std::strlen(text)) : 0) {}

CCharStringSequence::CCharStringSequence(const wchar_t* text) : CCharStringSequence() {
    if (!text)
        return;
    // No wide character takes more than four bytes.
    const unsigned size = textLength(std::char_traits<wchar_t>::length(text) * std::uint64_t{4} + 1);
    const std::unique_ptr<char[]> bytes(new (std::nothrow) char[size]);
    if (!bytes)
        CQVXException::ThrowOutOfMemory();
    unsigned written = 0;
    convert(text, bytes.get(), size, &written);
    assign(asBytes(bytes.get()), written);
    SetHeaderLength();
}

CCharStringSequence::CCharStringSequence(const CPacketHeader& header, std::istream& in) : CPacket(header) {
    checkCode(header);
    std::string text(header.Length(), '\0');
    if (!readQuietly(in, text.data(), header.Length()))
        CQVXException::ThrowReadConstructor("CCharString: Read-In constructor cannot assign read stream data.");
    if (!follow(in, header.Length() == kCharStringMax, text))
        CQVXException::ThrowReadConstructor("CCharString: Read-In constructor cannot append read stream data.");
    assign(asBytes(text.data()), static_cast<unsigned>(text.size()));
    SetHeaderLength();
}

CCharStringSequence::CCharStringSequence(const CPacketHeader& header, const char* buf, unsigned size,
                                         unsigned& consumed)
    : CPacket(header) {
    checkCode(header);
    if (!buf || size < header.Length())
        CQVXException::ThrowReadConstructor("CCharString: Read-In constructor cannot assign read stream data.");
    assign(asBytes(buf), header.Length());
    unsigned taken = header.Length();
    if (header.Length() == kCharStringMax) {
        CCharStringSequence rest;
        unsigned more = 0;
        if (!rest.read(buf + taken, size - taken, more))
            CQVXException::ThrowReadConstructor("CCharString: Read-In constructor cannot append read stream data.");
        append(rest.data(), rest.length());
        taken += more;
    }
    SetHeaderLength();
    consumed = taken;
}

void CCharStringSequence::SetHeaderLength() {
    SetLength(static_cast<std::uint8_t>(std::min(length(), kCharStringMax)));
}

void CCharStringSequence::clear() {
    CCharStringSequencePayload::clear();
    SetHeaderLength();
}

CCharStringSequence& CCharStringSequence::operator+=(const CCharStringSequence& text) {
    append(text.data(), text.length());
    SetHeaderLength();
    return *this;
}

CCharStringSequence& CCharStringSequence::operator+=(const CCharString& text) {
    append(text.data(), text.Length());
    SetHeaderLength();
    return *this;
}

unsigned CCharStringSequence::StreamSize() const {
    constexpr unsigned kMost = std::numeric_limits<unsigned>::max();
    return static_cast<unsigned>(std::min<std::uint64_t>(StreamSize(length()), kMost));
}

bool CCharStringSequence::follow(std::istream& in, bool full, std::string& text) {
    while (full && textIsNext(in)) {
        CPacketHeader header;
        if (!header.read(in))
            return false;
        const std::size_t old = text.size();
        const auto grow = [&] {
            text.resize(textLength(old + header.Length()));
            return true;
        };
        if (!attempt(grow)) {
            logError("CCharStringSequence::read: failed to append read stream data.");
            CQVXException::ThrowOutOfMemory();
        }
        if (!readQuietly(in, text.data() + old, header.Length()))
            return false;
        full = header.Length() == kCharStringMax;
    }
    return true;
}

bool CCharStringSequence::read(std::istream& in) {
    clear();
    std::string text;
    if (!follow(in, true, text))
        return false;
    assign(asBytes(text.data()), static_cast<unsigned>(text.size()));
    SetHeaderLength();
    return true;
}

bool CCharStringSequence::read(const char* buf, unsigned size, unsigned& consumed) {
    unsigned total = 0;
    unsigned end = 0;
    bool full = true;
    while (full && buf && end < size && static_cast<unsigned char>(buf[end]) == CharString) {
        const unsigned left = size - end;
        const unsigned length = left < CPacketHeader::Len() ? 0 : static_cast<unsigned char>(buf[end + 1]);
        if (left < CPacketHeader::Len() + length)
            return false;
        total += length;
        end += CPacketHeader::Len() + length;
        full = length == kCharStringMax;
    }
    unsigned char* to = refill(total);
    for (unsigned at = 0; at < total; at += kCharStringMax) {
        buf += CPacketHeader::Len();
        const unsigned chunk = std::min(total - at, kCharStringMax);
        std::memcpy(to + at, buf, chunk);
        buf += chunk;
    }
    SetHeaderLength();
    consumed = end;
    return true;
}

unsigned CCharStringSequence::read(const char* buf, unsigned size) {
    unsigned consumed = 0;
    return buf && read(buf, size, consumed) ? consumed : 0;
}

unsigned CCharStringSequence::write(char* buf, unsigned size) const {
    if (!buf || size < StreamSize(length()))
        return 0;
    return static_cast<unsigned>(writeText(buf, data(), length()) - buf);
}

char* CCharStringSequence::writeText(char* to, const unsigned char* bytes, unsigned length) {
    for (unsigned at = 0; at < length; at += kCharStringMax)
        to = putCharString(to, bytes + at, std::min(length - at, kCharStringMax));
    return length % kCharStringMax == 0 ? putCharString(to, nullptr, 0) : to;
}

bool CCharStringSequence::write(std::ostream& out) const {
    char packet[CPacketHeader::Len() + kCharStringMax];
    unsigned at = 0;
    do {
        const unsigned chunk = std::min(length() - at, kCharStringMax);
        const char* end = putCharString(packet, data() + at, chunk);
        if (!writeQuietly(out, packet, static_cast<unsigned>(end - packet)))
            return false;
        at += chunk;
        if (chunk < kCharStringMax)
            return true;
    } while (true);
}

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isCharacter(char32_t c) {
    return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF);
}

/// Takes the next character of a zero-terminated text of UTF-8, UTF-16 or UTF-32, by the width of its units.
template <class Unit> char32_t next(const Unit*& at) {
    if constexpr (sizeof(Unit) == 4) {
        const char32_t c = static_cast<char32_t>(*at++);
        return isCharacter(c) ? c : kReplacement;
    } else if constexpr (sizeof(Unit) == 2) {
        const char32_t c = static_cast<char16_t>(*at++);
        if (isCharacter(c))
            return c;
        const char32_t low = static_cast<char16_t>(*at);
        if (c > 0xDBFF || low < 0xDC00 || low > 0xDFFF)
            return kReplacement;
        ++at;
        return 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
    } else {
        std::size_t left = 1; // of the text, as far as a character may reach
        while (left < 4 && at[left] != 0)
            ++left;
        const Character character = firstCharacter({reinterpret_cast<const char*>(at), left});
        at += character.size;
        return character.code;
    }
}

/// Puts a character as units of the output's encoding; the number of units, at most 4.
template <class Unit> unsigned put(char32_t c, Unit* to) {
    if constexpr (sizeof(Unit) == 4) {
        to[0] = static_cast<Unit>(c);
        return 1;
    } else if constexpr (sizeof(Unit) == 2) {
        if (c < 0x10000) {
            to[0] = static_cast<Unit>(c);
            return 1;
        }
        to[0] = static_cast<Unit>(0xD800 + ((c - 0x10000) >> 10));
        to[1] = static_cast<Unit>(0xDC00 + ((c - 0x10000) & 0x3FF));
        return 2;
    } else {
        const unsigned more = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        static constexpr unsigned kLead[] = {0x00, 0xC0, 0xE0, 0xF0};
        to[0] = static_cast<Unit>(kLead[more] | (c >> (6 * more)));
        for (unsigned i = 1; i <= more; ++i)
            to[i] = static_cast<Unit>(0x80 | ((c >> (6 * (more - i))) & 0x3F));
        return more + 1;
    }
}

template <class In, class Out> bool convertText(const In* in, Out* out, unsigned size, unsigned* written) {
    if (written)
        *written = 0;
    if (!in || !out || size == 0)
        return false;
    unsigned count = 0;
    while (*in != In(0)) {
        Out units[4];
        const unsigned n = put(next(in), units);
        if (n >= size - count) {
            out[0] = Out(0);
            return false;
        }
        std::copy_n(units, n, out + count);
        count += n;
    }
    out[count] = Out(0);
    if (written)
        *written = count;
    return true;
}

/// The bytes of a text, which need not be aligned nor terminated, as a terminated run of units.
template <class Unit> std::vector<Unit> unitsOf(const unsigned char* bytes, std::size_t size) {
    std::vector<Unit> units(size / sizeof(Unit) + 1, Unit(0));
    if (size > 0)
        std::memcpy(units.data(), bytes, size / sizeof(Unit) * sizeof(Unit));
    return units;
}

/// How many bytes a text has before its terminator, which is one unit of zeros.
template <class Unit> std::size_t sizeOf(const unsigned char* bytes) {
    std::size_t size = 0;
    for (Unit unit; std::memcpy(&unit, bytes + size, sizeof unit), unit != Unit(0);)
        size += sizeof unit;
    return size;
}

template <class Out>
bool convertBytes(unsigned charSize, const unsigned char* bytes, std::size_t size, Out* out, unsigned room,
                  unsigned* written) {
    if (charSize >= sizeof(char32_t))
        return convertText(unitsOf<char32_t>(bytes, size).data(), out, room, written);
    if (charSize >= sizeof(char16_t))
        return convertText(unitsOf<char16_t>(bytes, size).data(), out, room, written);
    return convertText(unitsOf<char>(bytes, size).data(), out, room, written);
}

template <class Out>
bool convertTerminated(unsigned charSize, const unsigned char* bytes, Out* out, unsigned room, unsigned* written) {
    if (written)
        *written = 0;
    if (!bytes)
        return false;
    const std::size_t size = charSize >= sizeof(char32_t)   ? sizeOf<char32_t>(bytes)
                             : charSize >= sizeof(char16_t) ? sizeOf<char16_t>(bytes)
                                                            : sizeOf<char>(bytes);
    return convertBytes(charSize, bytes, size, out, room, written);
}

} // namespace

unsigned CCharStringSequence::GuessCharSize(unsigned length, const unsigned char* bytes) {
    unsigned zeros = 0;
    while (bytes && zeros < length && bytes[length - 1 - zeros] == 0)
        ++zeros;
    return zeros;
}

bool CCharStringSequence::getString(char* out, unsigned size, unsigned* written) const {
    return convertBytes(GuessCharSize(length(), data()), data(), length(), out, size, written);
}

bool CCharStringSequence::getString(wchar_t* out, unsigned size, unsigned* written) const {
    return convertBytes(GuessCharSize(length(), data()), data(), length(), out, size, written);
}

bool CCharStringSequence::getString(unsigned charSize, const unsigned char* bytes, char* out, unsigned size,
                                    unsigned* written) {
    return convertTerminated(charSize, bytes, out, size, written);
}

bool CCharStringSequence::getString(unsigned charSize, const unsigned char* bytes, wchar_t* out, unsigned size,
                                    unsigned* written) {
    return convertTerminated(charSize, bytes, out, size, written);
}

#define QUORVEX_CONVERT(In, Out)                                                                                       \
    bool CCharStringSequence::convert(const In* in, Out* out, unsigned size, unsigned* written) {                      \
        return convertText(in, out, size, written);                                                                    \
    }
#define QUORVEX_CONVERT_FROM(In)                                                                                       \
    QUORVEX_CONVERT(In, char)                                                                                          \
    QUORVEX_CONVERT(In, wchar_t)                                                                                       \
    QUORVEX_CONVERT(In, char16_t)                                                                                      \
    QUORVEX_CONVERT(In, char32_t)

QUORVEX_CONVERT_FROM(char)
QUORVEX_CONVERT_FROM(wchar_t)
QUORVEX_CONVERT_FROM(char16_t)
QUORVEX_CONVERT_FROM(char32_t)
#undef QUORVEX_CONVERT_FROM
#undef QUORVEX_CONVERT

// A text of any length goes by the code of the packets that it is written as.
template <> CPacket* KindFunctions<CCharString>::copy(const CPacket& packet) {
    if (const auto* sequence = dynamic_cast<const CCharStringSequence*>(&packet))
        return new CCharStringSequence(*sequence);
    const auto* text = packetAs<CCharString>(packet);
    return text ? new CCharString(*text) : nullptr;
}

template struct KindFunctions<CCharString>;

} // namespace Quorvex
