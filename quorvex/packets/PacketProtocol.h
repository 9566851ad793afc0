#pragma once

/// What all kinds of packet do alike, written once.
///
/// A packet is a header, a context and payloads, and a kind is declared by naming them:
///
///     class CBranchBase : public BaseOf<kBranchBaseRules, CorePacket, CBranchTarget> { using BaseOf::BaseOf; };
///     class CDirectBranch : public Kind<DirectBranch, CBranchBase> { using Kind::Kind; };
///
/// PacketOf supplies reading, writing and sizes out of the parts' field lists. Kind fixes the type code and supplies
/// the constructors; BaseOf supplies those of a class that several kinds share, which take the code first. A base may
/// itself be a packet, which then gets one more payload.
///
/// A payload says which values it is made from: `using Forms = FormList<Form<A>, Form<A, B>>`. For every form there are
/// two constructors: from the context's values and those values, and from a context and those values.
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
#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/format/Packet.h"
#include "quorvex/packets/PayloadIn.h"
#include "quorvex/packets/PayloadOperations.h"
#include "quorvex/platform/Export.h"

#include <istream>
#include <ostream>
#include <tuple>
#include <utility>

namespace Quorvex {

/// A text for each of the two media that packets are read from.
struct MediaTexts {
    const char* stream;
    const char* buffer;

    constexpr MediaTexts(const char* both) : stream(both), buffer(both) {}
    constexpr MediaTexts(const char* ofStream, const char* ofBuffer) : stream(ofStream), buffer(ofBuffer) {}
    constexpr const MediaTexts& orElse(const MediaTexts& other) const { return stream ? *this : other; }
};

/// How the packets of one class are read: what its Read-In constructors throw, by the step that fails, and where it
/// differs from the others. Without a text the class does not make the check.
struct ReadRules {
    MediaTexts header = nullptr;        ///< the header's code or length is not that of the kind
    MediaTexts tooShort = nullptr;      ///< the length is below the fixed payload, if not as `header`
    MediaTexts misfit = nullptr;        ///< the payload cannot have that length, if not as `header`
    MediaTexts size = nullptr;          ///< the buffer is smaller than the fixed payload
    MediaTexts context = nullptr;       ///< the context cannot be read
    MediaTexts basis = nullptr;         ///< the payload of the class below cannot be read, if not as that class says
    MediaTexts payload = nullptr;       ///< the payload cannot be read
    MediaTexts text = nullptr;          ///< the text behind the packet cannot be read
    const char* textReadLog = nullptr;  ///< goes to the message log when the text cannot be read,
    const char* textWriteLog = nullptr; ///< and when it cannot be written
    int least = -1;                     ///< payload bytes that the plain buffer read asks for, if not the fixed ones
    bool wholeSize = false;             ///< `size` is checked for all bytes that the header announces
    bool logged = false;                ///< failures of plain reads and writes go to the message log
};

/// Rules of a class in which nothing can fail.
inline constexpr ReadRules kNoRules{};

/// Rules of a class that says the same whatever fails.
constexpr ReadRules sameText(const char* text) {
    return {.size = text, .context = text, .payload = text};
}

/// Stands in for the context of packets that have none.
struct NoContext {
    using Values = Form<>;
    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static void fields(Self&, Visitor&) {}
};

/// The sets of values that a payload can be made from.
template <class... Forms> struct FormList {};

/// Stands in for the payload of packets that are their context alone.
struct NoPayload {
    using Forms = FormList<Form<>>;
    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static void fields(Self&, Visitor&) {}
};

namespace protocol {

/// Marks the constructors that take a context and a tuple of all payload values.
struct FromValues {};

enum class Step { Header, Context, Payload };

/// A part that can tell whether a payload may have that many bytes for it.
template <class Part>
concept SizedPart = requires {
    Part::fits(0U);
};

/// Throws the text for the medium that is read from.
[[noreturn]] QUORVEX_API void failReadIn(const PayloadIn& in, const MediaTexts& texts);
/// Report a failed plain read or write of a packet, as in "FunctionEnter: Failed to read core context from stream.".
QUORVEX_API void logFailedRead(tagTCode code, Step step, bool fromStream);
QUORVEX_API void logFailedWrite(tagTCode code, Step step, bool toStream);
QUORVEX_API void logInvalidHeader(tagTCode code, bool fromStream);

/// Every form of the second list, with the values of the first list's first form before its own.
template <class Before, class List> struct PrefixForms;
template <class... B, class... More, class... F> struct PrefixForms<FormList<Form<B...>, More...>, FormList<F...>> {
    template <class> struct One;
    template <class... V> struct One<Form<V...>> { using type = Form<B..., V...>; };
    using type = FormList<typename One<F>::type...>;
};

template <class Forms> struct FirstCount;
template <class... V, class... More>
struct FirstCount<FormList<Form<V...>, More...>> : std::integral_constant<std::size_t, sizeof...(V)> {};

template <std::size_t From, class Tuple, std::size_t... I> auto slice(const Tuple& values, std::index_sequence<I...>) {
    return std::tie(std::get<From + I>(values)...);
}
/// References to the first N values of a tuple, and to those behind them.
template <std::size_t N, class Tuple> auto head(const Tuple& values) {
    return slice<0>(values, std::make_index_sequence<N>());
}
template <std::size_t N, class Tuple> auto tail(const Tuple& values) {
    return slice<N>(values, std::make_index_sequence<std::tuple_size_v<Tuple> - N>());
}

} // namespace protocol

/// Header and context: where every packet class begins.
template <class ContextPart> class QUORVEX_TEMPLATE_API ContextPacket : public CPacket, public ContextPart {
public:
    using Context = ContextPart;
    using Forms = FormList<Form<>>;
    static constexpr bool kVariable = false;
    static constexpr std::uint8_t Len() { return Context::Len(); }

    /// Calls `visit` with the context, then with each payload, in wire order.
    template <class Visit> void visitParts(Visit&& visit) const { visit(static_cast<const Context&>(*this)); }
    /// Takes the payload, but not the context, of a packet with the same payloads.
    template <class Other> void copyPayload(const Other&) {}
    /// The text behind the packet; null for kinds that have none.
    const CCharStringSequence* text() const { return nullptr; }

protected:
    explicit ContextPacket(tagTCode code) : CPacket(code, Len()) {}
    ContextPacket(protocol::FromValues, tagTCode code, const Context& context, const std::tuple<>&)
        : CPacket(code, Len()), Context(context) {}
    ContextPacket(PayloadIn& in, const ReadRules& texts) : CPacket(in.header()) {
        if (!in.read(static_cast<Context&>(*this)))
            protocol::failReadIn(in, texts.context);
    }

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
    using Forms = typename protocol::PrefixForms<typename Base::Forms, typename Payload::Forms>::type;
    static constexpr bool kVariable = Base::kVariable || VariablePart<Payload>;
    static constexpr const ReadRules& kRules = Rules;

    /// Bytes of the payload's fixed fields, context included.
    static constexpr std::uint8_t Len() { return Base::Len() + Payload::Len(); }

    unsigned Length() const override {
        if constexpr (kVariable)
            return payloadSize();
        else
            return Base::Length();
    }

    /// 0 for a packet that cannot be written.
    unsigned StreamSize() const override {
        if (!protocol::isWritable(static_cast<const Payload&>(*this)))
            return 0;
        const CCharStringSequence* following = text();
        const unsigned own = CPacketHeader::Len() + payloadSize();
        const unsigned more = following && !following->empty() ? following->StreamSize() : 0;
        return std::max(own + more, more); // a text that is too long to tell does not make the packet a short one
    }

    unsigned read(const char* buf, unsigned size) override {
        CPacketHeader header;
        if (!header.read(buf, size)) {
            logRead(protocol::Step::Header, false);
            return 0;
        }
        constexpr unsigned kLeast = CPacketHeader::Len() + (Rules.least >= 0 ? unsigned(Rules.least) : unsigned{Len()});
        if (size < kLeast && !Rules.logged)
            return 0;
        PayloadIn in(header, buf + CPacketHeader::Len(), size - CPacketHeader::Len());
        return load(in) ? CPacketHeader::Len() + in.consumed() : 0;
    }

    bool read(std::istream& stream) override {
        CPacketHeader header;
        if (!header.read(stream)) {
            logRead(protocol::Step::Header, true);
            return false;
        }
        PayloadIn in(header, stream);
        return load(in);
    }

    unsigned write(char* buf, unsigned size) override {
        if (!protocol::isWritable(static_cast<const Payload&>(*this)))
            return 0;
        const unsigned need = CPacketHeader::Len() + payloadSize();
        if (!buf || size < need) {
            logWrite(size < CPacketHeader::Len()                    ? protocol::Step::Header
                     : size < CPacketHeader::Len() + Context::Len() ? protocol::Step::Context
                                                                    : protocol::Step::Payload,
                     false);
            return 0;
        }
        renewHeader();
        CPacketHeader::write(buf, size);
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
            logText(Rules.textWriteLog);
        }
        return more == 0 ? 0 : need + more;
    }

    bool write(std::ostream& out) override {
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
            logWrite(step, true);
            return false;
        }
        const CCharStringSequence* following = text();
        if (!following || following->empty() || following->write(out))
            return true;
        logText(Rules.textWriteLog);
        return false;
    }

    template <class Visit> void visitParts(Visit&& visit) const {
        Base::visitParts(visit);
        visit(static_cast<const Payload&>(*this));
    }

    template <class Other> void copyPayload(const Other& other) {
        Base::copyPayload(other);
        static_cast<Payload&>(*this) = static_cast<const Payload&>(other);
        PacketOf::SetPacketHeaderLength();
    }

    const CCharStringSequence* text() const {
        if constexpr (HasFollowingText<const Payload>)
            return &Payload::followingText();
        else
            return Base::text();
    }

protected:
    explicit PacketOf(tagTCode code) : Base(code) { PacketOf::SetPacketHeaderLength(); }

    template <class... V>
    PacketOf(protocol::FromValues mark, tagTCode code, const Context& context, const std::tuple<V...>& values)
        : Base(mark, code, context, protocol::head<kBaseValues>(values)),
          Payload(std::make_from_tuple<Payload>(protocol::tail<kBaseValues>(values))) {
        PacketOf::SetPacketHeaderLength();
    }

    /// Builds the packet from its payload. Where several classes take part, each throws its own texts, but for what
    /// the class above has a text for.
    explicit PacketOf(PayloadIn& in, const ReadRules& above = kNoRules) : Base(checked(in), Rules) {
        if (!in.read(static_cast<Payload&>(*this)))
            protocol::failReadIn(in, above.basis.orElse(Rules.payload));
        if constexpr (HasFollowingText<Payload>)
            readText(in);
    }

    /// What a Read-In constructor checks at its end, and hands out.
    static void finish(const PayloadIn& in, tagTCode code, unsigned* consumed) {
        if (Rules.header.stream && (in.header().TraceCode() != code || in.left() != 0))
            protocol::failReadIn(in, Rules.header);
        if (consumed)
            *consumed = in.consumed();
    }

    unsigned payloadSize() const {
        if constexpr (kVariable) {
            unsigned size = 0;
            visitParts([&size](const auto& part) { size += partSize(part); });
            return size;
        } else {
            return Len();
        }
    }

    void SetPacketHeaderLength() override {
        const unsigned size = payloadSize();
        CPacketHeader::SetLength(size < UINT8_MAX ? static_cast<std::uint8_t>(size) : std::uint8_t{UINT8_MAX});
    }

private:
    /// Makes the header tell what is about to be written.
    void renewHeader() {
        if constexpr (!requires { Payload::kLengthAsRead; })
            PacketOf::SetPacketHeaderLength();
    }

    void readText(PayloadIn& in) {
        CCharStringSequence& text = Payload::followingText();
        if constexpr (requires { Payload::kTextMayCount; }) {
            if (in.left() > 0) {
                if (!in.readCountedText(text))
                    protocol::failReadIn(in, Rules.text);
                PacketOf::SetPacketHeaderLength();
                return;
            }
        }
        if (!in.readText(text) && !in.cutTextIsNone(static_cast<const Payload&>(*this))) {
            logText(Rules.textReadLog);
            protocol::failReadIn(in, Rules.text);
        }
    }

    static constexpr std::size_t kBaseValues = protocol::FirstCount<typename Base::Forms>::value;

    /// Whether a payload of that many bytes may be, as far as its last part can tell.
    static bool fits(unsigned length) {
        if constexpr (protocol::SizedPart<Payload>)
            return Payload::fits(length - Base::Len());
        else
            return true;
    }

    static PayloadIn& checked(PayloadIn& in) {
        const unsigned length = in.header().Length();
        if constexpr (Rules.header.stream) {
            if (length < Len())
                protocol::failReadIn(in, Rules.tooShort.orElse(Rules.header));
            if (!fits(length))
                protocol::failReadIn(in, Rules.misfit.orElse(Rules.header));
        }
        if (Rules.size.buffer && !in.holds(Rules.wholeSize ? length : Len()))
            protocol::failReadIn(in, Rules.size);
        return in;
    }

    /// Reads into a fresh packet first, so that a failure leaves this one as it was.
    bool load(PayloadIn& in) {
        if (in.header().TraceCode() == CPacketHeader::TraceCode() && fits(in.header().Length())) {
            try {
                PacketOf fresh(in);
                if (in.left() == 0) {
                    *this = fresh;
                    return true;
                }
            } catch (const std::exception&) {
                logRead(in.held(Context::Len()) ? protocol::Step::Payload : protocol::Step::Context, in.fromStream());
                return false;
            }
        }
        if constexpr (Rules.logged)
            protocol::logInvalidHeader(CPacketHeader::TraceCode(), in.fromStream());
        return false;
    }

    static void logText(const char* text) {
        if (text)
            logError(text);
    }
    void logRead(protocol::Step step, bool fromStream) const {
        if constexpr (Rules.logged)
            protocol::logFailedRead(this->TraceCode(), step, fromStream);
    }
    void logWrite(protocol::Step step, bool toStream) const {
        if constexpr (Rules.logged)
            protocol::logFailedWrite(this->TraceCode(), step, toStream);
    }
};

namespace protocol {

/// Adds to `Core`, for every form, the constructors from values. `Lead` is what stands before them: the type code for
/// the shared bases, nothing for the kinds.
template <class Core, class Lead, class ContextValues, class Forms> class Constructors;

template <class Core, class Lead, class ContextValues>
class Constructors<Core, Lead, ContextValues, FormList<>> : public Core {
protected:
    using Core::Core;
    Constructors() = default;
};

template <class Core, class... L, class... C, class... V, class... More>
class Constructors<Core, Form<L...>, Form<C...>, FormList<Form<V...>, More...>>
    : public Constructors<Core, Form<L...>, Form<C...>, FormList<More...>> {
    using Rest = Constructors<Core, Form<L...>, Form<C...>, FormList<More...>>;

public:
    using Context = typename Core::Context;
    using Rest::Rest;
    Constructors() = default;
    Constructors(L... lead, C... context, V... values) requires(sizeof...(L) + sizeof...(C) + sizeof...(V) > 0)
        : Rest(FromValues{}, lead..., Context(context...), std::tie(values...)) {}
    Constructors(L... lead, const Context& context, V... values) requires(sizeof...(C) > 0)
        : Rest(FromValues{}, lead..., context, std::tie(values...)) {}
};

/// What a shared base has beside its values: the default state and the Read-In constructors, whose header brings the
/// code.
template <class Packet> class BaseCore : public Packet {
public:
    explicit BaseCore(tagTCode code) : Packet(code) {}
    BaseCore(const CPacketHeader& header, std::istream& in) : BaseCore(PayloadIn(header, in)) {}
    /// `consumed` is 0 when it throws.
    BaseCore(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)
        : BaseCore(PayloadIn(header, buf, size), &(consumed = 0)) {}

protected:
    using Packet::Packet;

private:
    explicit BaseCore(PayloadIn&& in, unsigned* consumed = nullptr) : Packet(in) {
        Packet::finish(in, in.header().TraceCode(), consumed);
    }
};

/// What every kind has beside its values: its code, the default state and the Read-In constructors.
template <tagTCode Code, class Base> class KindCore : public Base {
public:
    static constexpr tagTCode kCode = Code;

    KindCore() : Base(Code) {}
    KindCore(const CPacketHeader& header, std::istream& in) : KindCore(PayloadIn(header, in)) {}
    /// `consumed` is 0 when it throws.
    KindCore(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)
        : KindCore(PayloadIn(header, buf, size), &(consumed = 0)) {}

protected:
    template <class Values>
    KindCore(FromValues mark, const typename Base::Context& context, const Values& values)
        : Base(mark, Code, context, values) {}

private:
    explicit KindCore(PayloadIn&& in, unsigned* consumed = nullptr) : Base(in) { Base::finish(in, Code, consumed); }
};

} // namespace protocol

/// A class that several kinds share, with public constructors that take the type code first.
template <const ReadRules& Rules, class Base, class Payload = NoPayload>
using BaseOf = protocol::Constructors<protocol::BaseCore<PacketOf<Rules, Base, Payload>>, Form<tagTCode>,
                                      typename Base::Context::Values, typename PacketOf<Rules, Base, Payload>::Forms>;

/// A concrete kind of packet: `Base` with a type code.
template <tagTCode Code, class Base>
using Kind = protocol::Constructors<protocol::KindCore<Code, Base>, Form<>, typename Base::Context::Values,
                                    typename Base::Forms>;

/// A shared base and a kind, each as one row.
#define QUORVEX_BASE(Class, ...)                                                                                       \
    class QUORVEX_API Class : public BaseOf<__VA_ARGS__> {                                                             \
    public:                                                                                                            \
        using Constructors::Constructors;                                                                              \
    };
#define QUORVEX_KIND(Name, ...)                                                                                        \
    class QUORVEX_API C##Name : public Kind<Name, __VA_ARGS__> {                                                       \
    public:                                                                                                            \
        using Constructors::Constructors;                                                                              \
    };

} // namespace Quorvex
