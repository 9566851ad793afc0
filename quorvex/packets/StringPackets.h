#pragma once

/// Texts in a trace.
///
///     CharString   7E | n | n bytes        n is 0 to 255
///
/// A text of any length is a run of CharString packets, each but the last of 255 bytes; a text whose length is a
/// multiple of 255 ends with an empty one. Bytes travel as they are, without a terminator.

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace Quorvex {

/// The most bytes that one CharString packet carries.
inline constexpr unsigned kCharStringMax = 255;

/// The bytes of one CharString packet. How many they are stands in the packet's header.
class QUORVEX_API CCharStringPayload {
public:
    const unsigned char* data() const { return m_bytes.data(); }

protected:
    std::array<unsigned char, kCharStringMax> m_bytes{}; ///< those beyond the length are no part of it
};

/// One CharString packet.
class QUORVEX_API CCharString : public CPacket, public CCharStringPayload {
public:
    static constexpr tagTCode kCode = CharString;

    CCharString() : CPacket(kCode, 0) {}
    /// A zero-terminated text, cut at 255 bytes.
    CCharString(const char* text);
    CCharString(const unsigned char* bytes, unsigned char length) : CCharString() { assign(bytes, length); }
    /// Read-In from a stream or a payload in memory; throw the read-constructor CQVXException.
    CCharString(const CPacketHeader& header, std::istream& in);
    CCharString(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed);
    template <class NoConstructorTakesTheseArguments = void> explicit CCharString(...) = delete;

    static constexpr std::uint8_t Len() { return 0; }

    void assign(const unsigned char* bytes, unsigned char length);
    void clear() { SetLength(0); }

    unsigned read(const char* buf, unsigned size) override;
    bool read(std::istream& in) override;
    unsigned write(char* buf, unsigned size) override;
    bool write(std::ostream& out) override;
};

/// The bytes of a text of any length.
class QUORVEX_API CCharStringSequencePayload {
public:
    CCharStringSequencePayload() = default;
    CCharStringSequencePayload(const CCharStringSequencePayload& other) { assign(other.data(), other.length()); }
    CCharStringSequencePayload& operator=(const CCharStringSequencePayload& other);
    ~CCharStringSequencePayload() {
        if (m_bytes)
            clear();
    }

    /// Null for the empty text.
    const unsigned char* data() const { return m_bytes; }
    unsigned length() const { return m_length; } ///< bytes
    bool empty() const { return m_length == 0; }
    std::string_view view() const { return {reinterpret_cast<const char*>(m_bytes), m_length}; }

protected:
    /// Both may be given a part of the text itself; out of memory throws and keeps the old text.
    void assign(const unsigned char* bytes, unsigned length);
    void append(const unsigned char* bytes, unsigned length);
    void clear();

    /// The text becomes `length` bytes for the caller to fill in; null for the empty text. Throws as they do.
    unsigned char* refill(unsigned length);

private:
    void replace(unsigned char* bytes, unsigned length);

    unsigned char* m_bytes = nullptr;
    unsigned m_length = 0;
};

/// A text of any length, written as a run of CharString packets. The encoding is the caller's; wide texts are turned
/// into UTF-8. Length() is the text's length capped at 255.
class QUORVEX_API CCharStringSequence : public CPacket, public CCharStringSequencePayload {
public:
    static constexpr tagTCode kCode = CharString;

    CCharStringSequence() : CPacket(kCode, 0) {}
    CCharStringSequence(const CCharString& text)
        : CCharStringSequence(text.data(), static_cast<unsigned>(text.Length())) {}
    CCharStringSequence(const unsigned char* bytes, unsigned length);
    /// Zero-terminated texts; null is the empty text.
    CCharStringSequence(const char* text);
    CCharStringSequence(const wchar_t* text);
    /// Read-In of a run whose first header is already read; throw the read-constructor CQVXException.
    CCharStringSequence(const CPacketHeader& header, std::istream& in);
    CCharStringSequence(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed);
    template <class NoConstructorTakesTheseArguments = void> explicit CCharStringSequence(...) = delete;
    CCharStringSequence(const CCharStringSequence&) = default;
    CCharStringSequence& operator=(const CCharStringSequence&) = default;

    CCharStringSequence& operator=(const CCharString& text) { return *this = CCharStringSequence(text); }
    CCharStringSequence& operator=(const char* text) { return *this = CCharStringSequence(text); }
    CCharStringSequence& operator+=(const CCharStringSequence& text);
    CCharStringSequence& operator+=(const CCharString& text);

    static constexpr std::uint8_t Len() { return 0; }

    void clear();
    /// All ones when the run is longer than 32 bits can tell (texts above 4 261 543 424 bytes): such a text can be
    /// written to a stream, but fits into no buffer.
    unsigned StreamSize() const override;
    /// Bytes of the run that a text of `length` bytes is written as.
    static constexpr std::uint64_t StreamSize(unsigned length) {
        return length + std::uint64_t{CPacketHeader::Len()} * (1 + length / kCharStringMax);
    }

    /// Reads a run, first header included. What does not begin with a CharString packet is the empty text. A failed
    /// read from a stream leaves the empty text, one from memory the text that was. Out of memory throws.
    unsigned read(const char* buf, unsigned size) override;
    bool read(std::istream& in) override;
    unsigned write(char* buf, unsigned size) override { return std::as_const(*this).write(buf, size); }
    bool write(std::ostream& out) override { return std::as_const(*this).write(out); }
    unsigned write(char* buf, unsigned size) const;
    bool write(std::ostream& out) const;
    /// Writes the run of a text to where there is room for its StreamSize(length) bytes; where it ends.
    static char* writeText(char* to, const unsigned char* bytes, unsigned length);
    /// As the buffer form of read, but tells a missing run (true, `consumed` 0) from a cut one (false).
    bool read(const char* buf, unsigned size, unsigned& consumed);

    /// The text as characters: bytes, UTF-16 or UTF-32 by what GuessCharSize finds. `out` gets a terminating zero,
    /// which `written` (may be null) does not count. False, with nothing written, when `size` characters are too few.
    bool getString(char* out, unsigned size, unsigned* written) const;
    bool getString(wchar_t* out, unsigned size, unsigned* written) const;

    /// Number of zero bytes at the end: 0 for a text without terminator, 1 for one of bytes, 2 or 3 for UTF-16, more
    /// for UTF-32.
    static unsigned GuessCharSize(unsigned length, const unsigned char* bytes);
    static bool getString(unsigned charSize, const unsigned char* bytes, char* out, unsigned size, unsigned* written);
    static bool getString(unsigned charSize, const unsigned char* bytes, wchar_t* out, unsigned size,
                          unsigned* written);

    /// Conversions of zero-terminated texts between encodings; bytes are UTF-8. A byte that is no UTF-8 stands for the
    /// character of its number, a character that is none is replaced by U+FFFD. Output as for getString.
#define QUORVEX_CONVERT(In)                                                                                            \
    static bool convert(const In* in, char* out, unsigned size, unsigned* written);                                    \
    static bool convert(const In* in, wchar_t* out, unsigned size, unsigned* written);                                 \
    static bool convert(const In* in, char16_t* out, unsigned size, unsigned* written);                                \
    static bool convert(const In* in, char32_t* out, unsigned size, unsigned* written);
    QUORVEX_CONVERT(char)
    QUORVEX_CONVERT(wchar_t)
    QUORVEX_CONVERT(char16_t)
    QUORVEX_CONVERT(char32_t)
#undef QUORVEX_CONVERT

protected:
    /// Brings the header's length in line with the text.
    void SetHeaderLength();

private:
    /// Appends the packets of a run from a stream as long as the text goes on; `full` tells whether the packet before
    /// was a full one. False at a packet that cannot be read; out of memory throws.
    static bool follow(std::istream& in, bool full, std::string& text);
};

} // namespace Quorvex
