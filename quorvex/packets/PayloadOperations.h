#pragma once

/// The operations by which a payload moves without its packet. PacketImplementation.h defines them.

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <iosfwd>

namespace Quorvex {

class PayloadIn;

template <class Part>
concept HasFollowingText = requires(Part& part) {
    part.followingText();
};

/// Base of a payload class: reading and writing of the payload alone, with the text that follows it if it has one.
///
/// How wide a payload of changing size is must be told to the read forms: `length` is its bytes but for the first
/// `kBefore`. Forms that return a number return the bytes moved, or 0 for failure; those with a reference tell nothing
/// moved from failure. A failed read leaves the payload as it was. They are protected; classes whose payloads
/// travel by themselves make them public.
template <class Payload, unsigned kBefore = 0> class QUORVEX_TEMPLATE_API PayloadOperations {
protected:
    /// Bytes of the payload as it is; a text behind it is not counted.
    [[gnu::always_inline]] std::uint8_t _length() const { return static_cast<std::uint8_t>(partSize(self())); }

    bool read(std::istream& in, std::uint8_t length);
    [[gnu::always_inline]] unsigned read(const char* buf, unsigned size, std::uint8_t length) {
        unsigned consumed = 0;
        return read(buf, size, length, consumed) ? consumed : 0;
    }
    bool read(const char* buf, unsigned size, std::uint8_t length, unsigned& consumed);
    /// These two are for payloads of one size.
    template <class P = Payload> bool read(std::istream& in) requires(!VariablePart<P>) { return read(in, P::Len()); }
    template <class P = Payload> unsigned read(const char* buf, unsigned size) requires(!VariablePart<P>) {
        return read(buf, size, P::Len());
    }

    bool write(std::ostream& out) const;
    [[gnu::always_inline]] unsigned write(char* buf, unsigned size) const {
        unsigned written = 0;
        return write(buf, size, written) ? written : 0;
    }
    bool write(char* buf, unsigned size, unsigned& written) const;

private:
    [[gnu::always_inline]] const Payload& self() const { return static_cast<const Payload&>(*this); }
    bool take(PayloadIn& in);
};

} // namespace Quorvex
