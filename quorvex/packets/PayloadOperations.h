#pragma once

/// The operations by which a payload moves without its packet.

#include "quorvex/format/Fields.h"
#include "quorvex/packets/PayloadIn.h"

#include <cstdint>
#include <exception>
#include <istream>
#include <ostream>

namespace Quorvex {

template <class Part>
concept HasFollowingText = requires(Part& part) {
    part.followingText();
};

namespace protocol {

/// Whether the part can be told in a packet at all; those that need not be so say it by `writable()`.
template <class Part> bool isWritable(const Part& part) {
    if constexpr (requires { part.writable(); })
        return part.writable();
    else
        return true;
}

template <class Part> bool writePart(const Part& part, std::ostream& out) {
    try {
        if constexpr (MovesItself<Part>) {
            return part.write(out);
        } else if constexpr (Part::Len() == 0 && !VariablePart<Part>) {
            return true;
        } else {
            char bytes[UINT8_MAX];
            encodePart(part, bytes);
            return out.write(bytes, partSize(part)).good();
        }
    } catch (const std::exception& exception) {
        if constexpr (requires { Part::onWriteException(""); })
            Part::onWriteException(exception.what());
        return false;
    }
}

} // namespace protocol

/// Base of a payload class: reading and writing of the payload alone, with the text that follows it if it has one.
///
/// How wide a payload of changing size is must be told to the read forms: `length` is its bytes but for the first
/// `kBefore`. Forms that return a number return the bytes moved, or 0 for failure; those with a reference tell nothing
/// moved from failure. A failed read leaves the payload as it was. They are protected; classes whose payloads
/// travel by themselves make them public.
template <class Payload, unsigned kBefore = 0> class PayloadOperations {
protected:
    /// Bytes of the payload as it is; a text behind it is not counted.
    std::uint8_t _length() const { return static_cast<std::uint8_t>(partSize(self())); }

    /// These two are for payloads of one size.
    bool read(std::istream& in) {
        static_assert(!VariablePart<Payload>);
        return read(in, Payload::Len());
    }
    bool read(std::istream& in, std::uint8_t length) {
        PayloadIn from(header(length), in);
        return take(from);
    }
    unsigned read(const char* buf, unsigned size) {
        static_assert(!VariablePart<Payload>);
        return read(buf, size, Payload::Len());
    }
    unsigned read(const char* buf, unsigned size, std::uint8_t length) {
        unsigned consumed = 0;
        return read(buf, size, length, consumed) ? consumed : 0;
    }
    bool read(const char* buf, unsigned size, std::uint8_t length, unsigned& consumed) {
        PayloadIn from(header(length), buf, size);
        if (!take(from))
            return false;
        consumed = from.consumed();
        return true;
    }

    bool write(std::ostream& out) const {
        if (!protocol::isWritable(self()) || !protocol::writePart(self(), out))
            return false;
        if constexpr (HasFollowingText<const Payload>)
            return self().followingText().empty() || self().followingText().write(out);
        else
            return true;
    }
    unsigned write(char* buf, unsigned size) const {
        unsigned written = 0;
        return write(buf, size, written) ? written : 0;
    }
    bool write(char* buf, unsigned size, unsigned& written) const {
        const unsigned fields = partSize(self());
        if (!buf || size < fields || !protocol::isWritable(self()))
            return false;
        encodePart(self(), buf);
        unsigned more = 0;
        if constexpr (HasFollowingText<const Payload>) {
            if (!self().followingText().empty()) {
                more = self().followingText().write(buf + fields, size - fields);
                if (more == 0 && !requires { Payload::kTextIfRoom; })
                    return false;
            }
        }
        written = fields + more;
        return true;
    }

private:
    const Payload& self() const { return static_cast<const Payload&>(*this); }
    /// What is longer than a header can tell comes out shorter than the fixed fields, and is refused as such.
    static CPacketHeader header(std::uint8_t length) {
        return CPacketHeader(Invalid, static_cast<std::uint8_t>(kBefore + length));
    }
    bool take(PayloadIn& in) {
        Payload fresh;
        if (!in.read(fresh))
            return false;
        if constexpr (HasFollowingText<Payload>) {
            if (!in.readText(fresh.followingText()) && !in.cutTextIsNone(fresh))
                return false;
        }
        Payload& payload = static_cast<Payload&>(*this);
        payload = fresh;
        if constexpr (requires { payload.SetPacketHeaderLength(); })
            payload.SetPacketHeaderLength();
        return true;
    }
};

/// Stands last in a payload whose setters change its size. They call this hook, by which a packet brings the length in
/// its header in line; the payload alone has no header.
#define QUORVEX_RESIZABLE                                                                                              \
protected:                                                                                                             \
    virtual void SetPacketHeaderLength() {}                                                                            \
    friend PayloadOperations;

/// Makes the operations of a payload public.
#define QUORVEX_PUBLIC_OPERATIONS                                                                                      \
public:                                                                                                                \
    using PayloadOperations::read;                                                                                     \
    using PayloadOperations::write;

} // namespace Quorvex
