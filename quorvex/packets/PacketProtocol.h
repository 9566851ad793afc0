#pragma once

/// What all kinds of packet do alike.
///
/// A packet is a header, a context and payloads. A payload lists its fields once (see Fields.h); PacketOf puts it
/// behind a base, which is a context or another packet, and supplies sizes, reading and writing out of the lists. What
/// is left to a kind, or to a base that several kinds share, are its constructors:
///
///     class CBranchBase : public PacketOf<kBranchBaseRules, CorePacket, CBranchTarget> {
///         QUORVEX_BASE(CBranchBase)
///     public:
///         CBranchBase(tagTCode code, const CCoreContext& context, std::uint64_t target);
///     };
///     class CDirectBranch : public CBranchBase {
///         QUORVEX_KIND(DirectBranch, CBranchBase)
///     public:
///         CDirectBranch(const CCoreContext& context, std::uint64_t target);
///     };
///
/// QUORVEX_BASE and QUORVEX_KIND (KindMacros.def) stand for what is the same everywhere: the default state and the
/// Read-In constructors, and for kinds kCode.
///
/// Reading and writing are defined in PacketImplementation.h and compiled once, in the source of the family; the header
/// says so by QUORVEX_EXTERN_TEMPLATE. The rules by which a class is read, and the texts of its failures, stand there
/// too, and so do the constructors:
///
///     CBranchBase::CBranchBase(tagTCode code, const CCoreContext& context, std::uint64_t target)
///         : PacketOf(context.values(), code, target) {}
///     CDirectBranch::CDirectBranch(const CCoreContext& context, std::uint64_t target)
///         : CBranchBase(context.values(), kCode, target) {}
///
/// Only of the kinds that a program makes without end, instructions and calls, are they inline.
///
/// A payload whose packet is followed by a text (a name, a message) hands it out by `followingText()`; the text is not
/// counted in the header's length. It may say of the text:
///     kTextIfRoom      into memory that is too small for it, the packet is written without it
///     kCutTextIsNone   in memory, a text that cannot be read counts as none
///     kTextMayCount    packets are also read whose header counts the text; they are written without
///
/// The header's length follows every setter of a payload (see QUORVEX_RESIZABLE). A change through a reference, as
/// `packet.AccData() = data`, cannot be seen: Length() and StreamSize() know it at once, the header itself from the
/// next write on.
///
/// A Read-In constructor keeps the header that it is given, also where kinds do not look at it. Written is always the
/// length that goes with the bytes behind it, and a plain read takes no other: it refuses the code of another kind and
/// a length that the payload does not use up.

#include "quorvex/format/Context.h"
#include "quorvex/format/Packet.h"
#include "quorvex/packets/PayloadOperations.h"
#include "quorvex/packets/StringPackets.h"
#include "quorvex/platform/Export.h"

#include <iosfwd>
#include <typeinfo>
#include <utility>

namespace Quorvex {

class PayloadIn;
struct ReadRules;
namespace protocol {
struct PlainRead;
}

/// Stands in for the context of packets that have none.
struct NoContext {
    struct Values {};
    NoContext() = default;
    NoContext(const Values&, FromValues) {}

    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static constexpr void fields(Self&, Visitor&) {}
};

/// Stands in for the payload of packets that are their context alone.
struct NoPayload {
    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static constexpr void fields(Self&, Visitor&) {}
};

/// The parts of a packet in wire order: its context, then its payloads.
template <class... Part> struct PartList {};

namespace detail {
/// Those of a list and one more, if it is one.
template <class List, class Payload> struct PartsWith;
template <class... Part, class Payload> struct PartsWith<PartList<Part...>, Payload> {
    using type = PartList<Part..., Payload>;
};
template <class... Part> struct PartsWith<PartList<Part...>, NoPayload> { using type = PartList<Part...>; };
} // namespace detail

/// Header and context: where every packet class begins.
template <class ContextPart> class QUORVEX_TEMPLATE_API ContextPacket : public CPacket, public ContextPart {
public:
    using Context = ContextPart;             ///< where and when it happened
    using Parts = PartList<Context>;         ///< what it consists of
    static constexpr bool kVariable = false; ///< the size of the payload may change
    static constexpr std::uint8_t Len() { return Context::Len(); }

    /// Calls `visit` with the context, then with each payload, in wire order.
    template <class Visit> void visitParts(Visit&& visit) const { visit(static_cast<const Context&>(*this)); }
    /// Takes the payload, but not the context, of a packet with the same payloads.
    template <class Other> void copyPayload(const Other&) {}
    /// The text behind the packet; null for kinds that have none.
    const CCharStringSequence* text() const { return nullptr; }

protected:
    explicit ContextPacket(tagTCode code) : CPacket(code, Len()) {}
    ContextPacket(const typename Context::Values& context, tagTCode code)
        : CPacket(code, Len()), Context(context, FromValues()) {}
    /// `above` are the rules of the class that is read.
    ContextPacket(PayloadIn& in, const ReadRules* above);

    /// Brings the header's length in line with the payload.
    virtual void SetPacketHeaderLength() { SetLength(Len()); }
};

using PlainPacket = ContextPacket<NoContext>;
using CorePacket = ContextPacket<CCoreContext>;
using RelCorePacket = ContextPacket<CRelCoreContext>;
using BusPacket = ContextPacket<CBusContext>;
using RelBusPacket = ContextPacket<CRelBusContext>;
using SystemPacket = ContextPacket<CSystemContext>;
using RelSystemPacket = ContextPacket<CRelSystemContext>;

/// `Base` with a payload behind it.
template <const ReadRules& Rules, class Base, class Payload = NoPayload>
class QUORVEX_TEMPLATE_API PacketOf : public Base, public Payload {
public:
    using typename Base::Context;
    /// What it consists of.
    using Parts = typename detail::PartsWith<typename Base::Parts, Payload>::type;
    /// The size of the payload may change.
    static constexpr bool kVariable = Base::kVariable || VariablePart<Payload>;

    /// Bytes of the payload's fixed fields, context included.
    [[gnu::always_inline]] static constexpr std::uint8_t Len() { return Base::Len() + Payload::Len(); }

    /// Bytes of the payload as it is, context included.
    unsigned Length() const override {
        if constexpr (kVariable)
            return payloadSize();
        else
            return Base::Length();
    }
    /// 0 for a packet that cannot be written.
    unsigned StreamSize() const override;

    unsigned read(const char* buf, unsigned size) override; ///< the bytes taken, 0 on failure
    bool read(std::istream& stream) override;               ///< a failed read changes nothing
    unsigned write(char* buf, unsigned size) override;      ///< the bytes put, 0 on failure
    bool write(std::ostream& out) override;                 ///< false on failure

    /// Hands over the context and the payloads, in wire order.
    template <class Visit> void visitParts(Visit&& visit) const {
        Base::visitParts(visit);
        visit(static_cast<const Payload&>(*this));
    }

    /// Takes the payloads of a packet that has the same ones.
    template <class Other> void copyPayload(const Other& other) {
        Base::copyPayload(other);
        static_cast<Payload&>(*this) = static_cast<const Payload&>(other);
        setOwnLength();
    }

    /// The text that follows the packet; null if none can.
    [[gnu::always_inline]] const CCharStringSequence* text() const {
        if constexpr (HasFollowingText<const Payload>)
            return &Payload::followingText();
        else
            return Base::text();
    }

protected:
    explicit PacketOf(tagTCode code) : Base(code) { setOwnLength(); }

    /// From what the context holds and what the last payload is made from. Payloads below it keep their defaults; the
    /// kind sets them.
    template <class... Own>
    PacketOf(const typename Context::Values& context, tagTCode code, const Own&... values)
        : Base(context, code), Payload(values...) {
        setOwnLength();
    }

    /// The Read-In constructors of a class for packets of that code; `consumed` is 0 when they throw.
    PacketOf(const CPacketHeader& header, std::istream& in, tagTCode code);
    PacketOf(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed, tagTCode code);

    /// Builds the packet from its payload. Where several classes take part, each throws its own texts, but for what
    /// the class above has a text for.
    explicit PacketOf(PayloadIn& in, const ReadRules* above = nullptr);

    unsigned payloadSize() const;          ///< bytes, context included
    void SetPacketHeaderLength() override; ///< makes the header tell the payload's size, 255 at most

private:
    /// SetPacketHeaderLength, of this class.
    [[gnu::always_inline]] void setOwnLength() {
        if constexpr (kVariable)
            PacketOf::SetPacketHeaderLength();
        else
            CPacketHeader::SetLength(Len());
    }
    PacketOf(PayloadIn&& in, tagTCode code, unsigned* consumed);

    static bool fits(unsigned length);
    static PayloadIn& checked(PayloadIn& in);
    void readText(PayloadIn& in);
    static protocol::PlainRead plainRead();
    static bool load(CPacket& packet, PayloadIn& in);
    void renewHeader();
};

namespace detail {
/// packetAs() where the type's information is not the very one of the kind.
template <class Packet> [[gnu::noinline, gnu::cold]] const Packet* otherPacketAs(const CPacket& packet) {
    return typeid(packet) == typeid(Packet) ? static_cast<const Packet*>(&packet)
                                            : dynamic_cast<const Packet*>(&packet);
}
} // namespace detail

/// The packet as the class of a kind; null when it is something else. Nearly all packets are of the very class that
/// their code names, which is seen many times faster than by a dynamic_cast.
template <class Packet> const Packet* packetAs(const CPacket& packet) {
    if (packet.TraceCode() != Packet::kCode)
        return nullptr;
    if (&typeid(packet) == &typeid(Packet)) [[likely]]
        return static_cast<const Packet*>(&packet);
    return detail::otherPacketAs<Packet>(packet);
}
template <class Packet> Packet* packetAs(CPacket& packet) {
    return const_cast<Packet*>(packetAs<Packet>(std::as_const(packet)));
}

} // namespace Quorvex
