#pragma once

/// How packets are read and written. Only sources that compile kinds include it: those of the families, and a host's
/// that declares a packet class of its own (but not where the library is a shared one on Windows, which does not tell
/// the rules of its classes). A family's source names what it compiles:
///
///     constexpr ReadRules kBranchBaseRules{...};                                the rules, which the header declares
///     template class PayloadOperations<CBranchTarget>;                          its payloads,
///     template class PacketOf<kBranchBaseRules, CorePacket, CBranchTarget>;     its packets,
///     QUORVEX_COMPILE_PAIR(DirectBranch)                                        and its kinds for the factory
///
/// Members that are only called here are inline. All others are emitted by the explicit instantiations of the family,
/// because nobody else knows the rules.

#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFunctions.h"
#include "quorvex/packets/PacketProtocol.h"
#include "quorvex/packets/PayloadIn.h"
#include "quorvex/packets/ReadRules.h"

#include <algorithm>
#include <exception>
#include <istream>
#include <memory>
#include <ostream>
#include <type_traits>

namespace Quorvex {

namespace protocol {

enum class Step { Header, Context, Payload };

/// A part that can tell whether a payload may have that many bytes for it.
template <class Part>
concept SizedPart = requires {
    Part::fits(0U);
};

/// Throws the text for the medium that is read from.
[[noreturn]] QUORVEX_API void failReadIn(bool fromStream, const MediaTexts& texts);
/// Reports a failed write of a packet, as in "FunctionEnter: Failed to write core context to stream.".
QUORVEX_API void logFailedWrite(tagTCode code, Step step, bool toStream);
/// The same for a packet that does not fit so many bytes. The result is 0: the bytes that are written of it.
QUORVEX_API unsigned refuseRoom(const CPacket& packet, unsigned size, unsigned lengthOfContext);

/// What plain reads must know of a packet's class.
struct PlainRead {
    /// Reads a fresh packet first, so that a failure leaves this one as it was. False if the payload cannot have the
    /// header's length; throws what the Read-In constructor throws.
    bool (*load)(CPacket& packet, PayloadIn& in);
    std::uint16_t least;  ///< bytes of header and payload that a buffer must hold
    std::uint8_t context; ///< bytes of the context
    bool logged;          ///< failures go to the message log
};
/// The plain reads of a packet. All classes share them.
QUORVEX_API unsigned readPlain(CPacket& packet, PlainRead how, const char* buf, unsigned size);
QUORVEX_API bool readPlain(CPacket& packet, PlainRead how, std::istream& stream);

inline void logText(const char* text) {
    if (text)
        logError(text);
}

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

struct FixedSizer {
    unsigned size = 0;
    template <class T> constexpr void operator()(FieldMeaning, const char*, const T&) { size += FieldCodec<T>::kFixed; }
};

/// Room for a part that is never made, whose fields are only named.
template <class Part> union Unmade {
    constexpr Unmade() : nothing() {}
    constexpr ~Unmade() {}
    char nothing;
    Part part;
};
template <class Part> extern Unmade<Part> unmade; // there is none: an object would be destroyed at the program's end

#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wundefined-var-template"
#endif
/// Whether Len() is the sum of the part's fixed fields. A part that chooses its fields by the size is not asked.
template <class Part> constexpr bool hasItsLength() {
    if constexpr (requires(Part & part) { part.shape(0U); }) {
        return true;
    } else {
        FixedSizer sizer;
        Part::fields(unmade<Part>.part, sizer);
        return sizer.size == Part::Len();
    }
}
#ifdef __clang__
#pragma clang diagnostic pop
#endif

} // namespace protocol

template <class ContextPart>
inline ContextPacket<ContextPart>::ContextPacket(PayloadIn& in, const ReadRules* above) : CPacket(in.header()) {
    static_assert(protocol::hasItsLength<Context>());
    if (!in.read(static_cast<Context&>(*this)))
        protocol::failReadIn(in.fromStream(), above->context);
}

template <const ReadRules& Rules, class Base, class Payload>
unsigned PacketOf<Rules, Base, Payload>::StreamSize() const {
    if (!protocol::isWritable(static_cast<const Payload&>(*this)))
        return 0;
    const CCharStringSequence* following = text();
    const unsigned own = CPacketHeader::Len() + payloadSize();
    const unsigned more = following && !following->empty() ? following->StreamSize() : 0;
    return std::max(own + more, more); // a text that is too long to tell does not make the packet a short one
}

template <const ReadRules& Rules, class Base, class Payload>
unsigned PacketOf<Rules, Base, Payload>::payloadSize() const {
    if constexpr (kVariable) {
        unsigned size = 0;
        visitParts([&size](const auto& part) { size += partSize(part); });
        return size;
    } else {
        return Len();
    }
}

template <const ReadRules& Rules, class Base, class Payload>
void PacketOf<Rules, Base, Payload>::SetPacketHeaderLength() {
    CPacketHeader::SetLength(static_cast<std::uint8_t>(std::min(payloadSize(), unsigned{UINT8_MAX})));
}

template <const ReadRules& Rules, class Base, class Payload>
unsigned PacketOf<Rules, Base, Payload>::read(const char* buf, unsigned size) {
    return protocol::readPlain(*this, plainRead(), buf, size);
}

template <const ReadRules& Rules, class Base, class Payload>
bool PacketOf<Rules, Base, Payload>::read(std::istream& stream) {
    return protocol::readPlain(*this, plainRead(), stream);
}

template <const ReadRules& Rules, class Base, class Payload>
unsigned PacketOf<Rules, Base, Payload>::write(char* buf, unsigned size) {
    if (!protocol::isWritable(static_cast<const Payload&>(*this)))
        return 0;
    const unsigned need = CPacketHeader::Len() + payloadSize();
    if (!buf || size < need) [[unlikely]] {
        if constexpr (Rules.logged)
            return protocol::refuseRoom(*this, size, Context::Len());
        return 0;
    }
    renewHeader();
    const unsigned header = CPacketHeader::TraceCode() | CPacketHeader::Length() << 8;
    storeLittleEndian(buf, static_cast<std::uint16_t>(header));
    char* to = buf + CPacketHeader::Len();
    visitParts([&to](const auto& part) {
        encodePart(part, to);
        to += partSize(part);
    });
    const CCharStringSequence* following = text();
    if (!following || following->empty())
        return need;
    const unsigned more = following->write(to, size - need);
    if (more == 0) {
        if (requires { Payload::kTextIfRoom; })
            return need;
        protocol::logText(Rules.textWriteLog);
    }
    return more == 0 ? 0 : need + more;
}

template <const ReadRules& Rules, class Base, class Payload>
bool PacketOf<Rules, Base, Payload>::write(std::ostream& out) {
    if (!protocol::isWritable(static_cast<const Payload&>(*this)))
        return false;
    renewHeader();
    protocol::Step step = protocol::Step::Header;
    bool good = CPacketHeader::write(out);
    visitParts([&](const auto& part) {
        if (!good)
            return;
        step = std::is_base_of_v<std::decay_t<decltype(part)>, Context> ? protocol::Step::Context
                                                                        : protocol::Step::Payload;
        good = protocol::writePart(part, out);
    });
    if (!good) {
        if constexpr (Rules.logged)
            protocol::logFailedWrite(this->TraceCode(), step, true);
        return false;
    }
    const CCharStringSequence* following = text();
    if (!following || following->empty() || following->write(out))
        return true;
    protocol::logText(Rules.textWriteLog);
    return false;
}

template <const ReadRules& Rules, class Base, class Payload>
PacketOf<Rules, Base, Payload>::PacketOf(const CPacketHeader& header, std::istream& in, tagTCode code)
    : PacketOf(PayloadIn(header, in), code, nullptr) {}

template <const ReadRules& Rules, class Base, class Payload>
PacketOf<Rules, Base, Payload>::PacketOf(const CPacketHeader& header, const char* buf, unsigned size,
                                         unsigned& consumed, tagTCode code)
    : PacketOf(PayloadIn(header, buf, size), code, &(consumed = 0)) {}

template <const ReadRules& Rules, class Base, class Payload>
inline PacketOf<Rules, Base, Payload>::PacketOf(PayloadIn&& in, tagTCode code, unsigned* consumed) : PacketOf(in) {
    if (Rules.header.stream && (in.header().TraceCode() != code || in.left() != 0))
        protocol::failReadIn(in.fromStream(), Rules.header);
    if (consumed)
        *consumed = in.consumed();
}

template <const ReadRules& Rules, class Base, class Payload>
PacketOf<Rules, Base, Payload>::PacketOf(PayloadIn& in, const ReadRules* above) : Base(checked(in), &Rules) {
    static_assert(protocol::hasItsLength<Payload>());
    if (!in.read(static_cast<Payload&>(*this)))
        protocol::failReadIn(in.fromStream(), above ? above->basis.orElse(Rules.payload) : Rules.payload);
    if constexpr (HasFollowingText<Payload>)
        readText(in);
}

template <const ReadRules& Rules, class Base, class Payload>
inline void PacketOf<Rules, Base, Payload>::readText(PayloadIn& in) {
    if constexpr (HasFollowingText<Payload>) {
        CCharStringSequence& text = Payload::followingText();
        if constexpr (requires { Payload::kTextMayCount; }) {
            if (in.left() > 0) {
                if (!in.readCountedText(text))
                    protocol::failReadIn(in.fromStream(), Rules.text);
                PacketOf::SetPacketHeaderLength();
                return;
            }
        }
        if (!in.readText(text) && !in.cutTextIsNone(static_cast<const Payload&>(*this))) {
            protocol::logText(Rules.textReadLog);
            protocol::failReadIn(in.fromStream(), Rules.text);
        }
    }
}

/// Whether a payload of that many bytes may be, as far as its last part can tell.
template <const ReadRules& Rules, class Base, class Payload>
inline bool PacketOf<Rules, Base, Payload>::fits(unsigned length) {
    if constexpr (protocol::SizedPart<Payload>)
        return Payload::fits(length - Base::Len());
    else
        return true;
}

template <const ReadRules& Rules, class Base, class Payload>
inline PayloadIn& PacketOf<Rules, Base, Payload>::checked(PayloadIn& in) {
    const unsigned length = in.header().Length();
    if constexpr (Rules.header.stream) {
        if (length < Len())
            protocol::failReadIn(in.fromStream(), Rules.tooShort.orElse(Rules.header));
        if (!fits(length))
            protocol::failReadIn(in.fromStream(), Rules.misfit.orElse(Rules.header));
    }
    if (Rules.size.buffer && !in.holds(Rules.wholeSize ? length : Len()))
        protocol::failReadIn(in.fromStream(), Rules.size);
    return in;
}

template <const ReadRules& Rules, class Base, class Payload>
inline protocol::PlainRead PacketOf<Rules, Base, Payload>::plainRead() {
    constexpr int kLeast = CPacketHeader::Len() + (Rules.least >= 0 ? Rules.least : int{Len()});
    return {load, std::uint16_t{kLeast}, Context::Len(), Rules.logged};
}

template <const ReadRules& Rules, class Base, class Payload>
bool PacketOf<Rules, Base, Payload>::load(CPacket& packet, PayloadIn& in) {
    if (!fits(in.header().Length()))
        return false;
    PacketOf fresh(in);
    if (in.left() != 0)
        return false;
    static_cast<PacketOf&>(packet) = fresh;
    return true;
}

/// Makes the header tell what is about to be written.
template <const ReadRules& Rules, class Base, class Payload> inline void PacketOf<Rules, Base, Payload>::renewHeader() {
    if constexpr (!requires { Payload::kLengthAsRead; }) {
        const unsigned length = std::min(payloadSize(), unsigned{UINT8_MAX});
        if (CPacketHeader::Length() != length) [[unlikely]]
            CPacketHeader::SetLength(static_cast<std::uint8_t>(length));
    }
}

namespace protocol {

/// What is longer than a header can tell comes out shorter than the fixed fields, and is refused as such.
inline CPacketHeader payloadHeader(unsigned before, std::uint8_t length) {
    return CPacketHeader(Invalid, static_cast<std::uint8_t>(before + length));
}

} // namespace protocol

template <class Payload, unsigned kBefore>
bool PayloadOperations<Payload, kBefore>::read(std::istream& in, std::uint8_t length) {
    const CPacketHeader header = protocol::payloadHeader(kBefore, length);
    PayloadIn from(header, in);
    return take(from);
}

template <class Payload, unsigned kBefore>
bool PayloadOperations<Payload, kBefore>::read(const char* buf, unsigned size, std::uint8_t length,
                                               unsigned& consumed) {
    const CPacketHeader header = protocol::payloadHeader(kBefore, length);
    PayloadIn from(header, buf, size);
    if (!take(from))
        return false;
    consumed = from.consumed();
    return true;
}

template <class Payload, unsigned kBefore> bool PayloadOperations<Payload, kBefore>::write(std::ostream& out) const {
    if (!protocol::isWritable(self()) || !protocol::writePart(self(), out))
        return false;
    if constexpr (HasFollowingText<const Payload>)
        return self().followingText().empty() || self().followingText().write(out);
    else
        return true;
}

template <class Payload, unsigned kBefore>
bool PayloadOperations<Payload, kBefore>::write(char* buf, unsigned size, unsigned& written) const {
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

template <class Payload, unsigned kBefore> bool PayloadOperations<Payload, kBefore>::take(PayloadIn& in) {
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

template <class Packet> CPacket* KindFunctions<Packet>::create() {
    return new Packet();
}

template <class Packet> CPacket* KindFunctions<Packet>::read(const CPacketHeader& header, std::istream& in) {
    return new Packet(header, in);
}

// What runs for each packet of a trace is compiled in one piece: else the classes of a kind fill and overwrite the same
// memory in turn, and the cursor travels through memory.

template <class Packet>
[[gnu::flatten]] CPacket* KindFunctions<Packet>::read(const CPacketHeader& header, const char* buffer, unsigned size,
                                                      unsigned& consumed) {
    return new Packet(header, buffer, size, consumed);
}

template <class Packet> CPacket* KindFunctions<Packet>::copy(const CPacket& packet) {
    const Packet* original = packetAs<Packet>(packet);
    return original ? new Packet(*original) : nullptr;
}

template <class Abs, class Rel>
[[gnu::flatten]] CPacket* PairFunctions<Abs, Rel>::toRelative(const CPacket& packet,
                                                              const typename Abs::Context& last) {
    using RelContext = typename Rel::Context;
    const Abs* absolute = packetAs<Abs>(packet);
    if (!absolute || !RelContext::testRelative(last, *absolute))
        return nullptr;
    auto relative = std::make_unique<Rel>();
    RelContext::createRelative(last, *absolute, static_cast<RelContext&>(*relative));
    relative->copyPayload(*absolute);
    return relative.release();
}

template <class Abs, class Rel>
[[gnu::flatten]] CPacket* PairFunctions<Abs, Rel>::toAbsolute(const CPacket& packet,
                                                              const typename Abs::Context& last) {
    const Rel* relative = packetAs<Rel>(packet);
    if (!relative)
        return nullptr;
    auto absolute = std::make_unique<Abs>();
    Rel::Context::createAbsolute(last, *relative, static_cast<typename Abs::Context&>(*absolute));
    absolute->copyPayload(*relative);
    return absolute.release();
}

} // namespace Quorvex

/// Compiles what QUORVEX_BASE declares.
#define QUORVEX_COMPILE_BASE(Class)                                                                                    \
    Class::Class(tagTCode code) : PacketOf(code) {}                                                                    \
    Class::Class(const CPacketHeader& header, std::istream& in) : PacketOf(header, in, header.TraceCode()) {}          \
    Class::Class(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)                      \
        : PacketOf(header, buf, size, consumed, header.TraceCode()) {}
/// Compiles a kind: what QUORVEX_KIND declares, and what the factory does with it.
#define QUORVEX_COMPILE_KIND(Name)                                                                                     \
    C##Name::C##Name() : Above(kCode) {}                                                                               \
    C##Name::C##Name(const CPacketHeader& header, std::istream& in) : Above(header, in, kCode) {}                      \
    C##Name::C##Name(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)                  \
        : Above(header, buf, size, consumed, kCode) {}                                                                 \
    template struct KindFunctions<C##Name>;
/// Compiles an absolute kind with its relative form.
#define QUORVEX_COMPILE_PAIR(Name)                                                                                     \
    QUORVEX_COMPILE_KIND(Name)                                                                                         \
    QUORVEX_COMPILE_KIND(Rel##Name)                                                                                    \
    template struct PairFunctions<C##Name, CRel##Name>;
