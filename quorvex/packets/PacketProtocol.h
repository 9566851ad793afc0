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
/// counted in the header's length.

#include "quorvex/format/Context.h"
#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/format/Packet.h"
#include "quorvex/packets/PayloadIn.h"
#include "quorvex/platform/Export.h"

#include <algorithm>
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
};

/// How the packets of one class are read: what its Read-In constructors throw, by the step that fails, and where it
/// differs from the others. Without a text the class does not make the check.
struct ReadRules {
    MediaTexts header = nullptr;        ///< the header's code or length is not that of the kind
    MediaTexts size = nullptr;          ///< the buffer is smaller than the fixed payload
    MediaTexts context = nullptr;       ///< the context cannot be read
    MediaTexts payload = nullptr;       ///< the payload cannot be read
    MediaTexts text = nullptr;          ///< the text behind the packet cannot be read
    const char* textReadLog = nullptr;  ///< goes to the message log when the text cannot be read,
    const char* textWriteLog = nullptr; ///< and when it cannot be written
    int least = -1;                     ///< payload bytes that the plain buffer read asks for, if not the fixed ones
    bool cutTextIsNone = false;         ///< in memory, a text that cannot be read counts as none
    bool wholeSize = false;             ///< `size` is checked for all bytes that the header announces
    bool logged = false;                ///< failures of plain reads and writes go to the message log
};

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

template <class Part>
concept HasFollowingText = requires(Part& part) {
    part.followingText();
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

template <class Part> bool writePart(const Part& part, std::ostream& out) {
    try {
        if constexpr (requires { part.write(out); }) {
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

    unsigned StreamSize() const override {
        const CCharStringSequence* following = text();
        const unsigned own = CPacketHeader::Len() + this->Length();
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
        const unsigned need = CPacketHeader::Len() + payloadSize();
        if (!fitsHeader())
            return 0;
        if (!buf || size < need) {
            logWrite(size < CPacketHeader::Len()                    ? protocol::Step::Header
                     : size < CPacketHeader::Len() + Context::Len() ? protocol::Step::Context
                                                                    : protocol::Step::Payload,
                     false);
            return 0;
        }
        headerToWrite().write(buf, size);
        char* to = buf + CPacketHeader::Len();
        visitParts([&to](const auto& part) {
            encodePart(part, to);
            to += partSize(part);
        });
        const CCharStringSequence* following = text();
        if (!following || following->empty())
            return need;
        const unsigned more = following->write(to, size - need);
        if (more == 0)
            logText(Rules.textWriteLog);
        return more == 0 ? 0 : need + more;
    }

    bool write(std::ostream& out) override {
        if (!fitsHeader())
            return false;
        CPacketHeader header = headerToWrite();
        protocol::Step step = protocol::Step::Header;
        bool good = header.write(out);
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
        syncLength();
    }

    const CCharStringSequence* text() const {
        if constexpr (HasFollowingText<const Payload>)
            return &Payload::followingText();
        else
            return Base::text();
    }

protected:
    explicit PacketOf(tagTCode code) : Base(code) { syncLength(); }

    template <class... V>
    PacketOf(protocol::FromValues mark, tagTCode code, const Context& context, const std::tuple<V...>& values)
        : Base(mark, code, context, protocol::head<kBaseValues>(values)),
          Payload(std::make_from_tuple<Payload>(protocol::tail<kBaseValues>(values))) {
        syncLength();
    }

    /// Builds the packet from its payload. Where several classes take part, each throws its own texts.
    explicit PacketOf(PayloadIn& in, const ReadRules& = Rules) : Base(checked(in), Rules) {
        if (!in.read(static_cast<Payload&>(*this)))
            protocol::failReadIn(in, Rules.payload);
        if constexpr (HasFollowingText<Payload>) {
            if (!in.readText(Payload::followingText()) && (in.fromStream() || !Rules.cutTextIsNone)) {
                logText(Rules.textReadLog);
                protocol::failReadIn(in, Rules.text);
            }
        }
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

    /// Brings the header's length in line with the payload; for whatever changes the size of a payload.
    void syncLength() { this->SetLength(static_cast<std::uint8_t>(payloadSize())); }

private:
    /// Whether the header's one byte can tell the payload's length; values of any width can make it too long.
    bool fitsHeader() const {
        if constexpr (kVariable)
            return payloadSize() <= UINT8_MAX;
        else
            return true;
    }

    /// The header, with the length that goes with the payload where that varies.
    CPacketHeader headerToWrite() const {
        if constexpr (kVariable)
            return CPacketHeader(CPacketHeader::TraceCode(), static_cast<std::uint8_t>(this->Length()));
        else
            return *this;
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
            if (length < Len() || !fits(length))
                protocol::failReadIn(in, Rules.header);
        }
        if (Rules.size.buffer && !in.holds(Rules.wholeSize ? length : Len()))
            protocol::failReadIn(in, Rules.size);
        return in;
    }

    /// Reads into a fresh packet first, so that a failure leaves this one as it was.
    bool load(PayloadIn& in) {
        if constexpr (Rules.logged) {
            if (in.header().TraceCode() != this->TraceCode() || !fits(in.header().Length())) {
                protocol::logInvalidHeader(this->TraceCode(), in.fromStream());
                return false;
            }
        }
        try {
            PacketOf fresh(in);
            *this = fresh;
            return true;
        } catch (const std::exception&) {
            logRead(in.consumed() < Context::Len() ? protocol::Step::Context : protocol::Step::Payload,
                    in.fromStream());
            return false;
        }
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

/// What every kind has beside its values: its code, the default state and the Read-In constructors.
template <tagTCode Code, class Base> class KindCore : public Base {
public:
    static constexpr tagTCode kCode = Code;

    KindCore() : Base(Code) {}
    KindCore(const CPacketHeader& header, std::istream& in) : KindCore(PayloadIn(header, in)) {}
    KindCore(const CPacketHeader& header, const char* buf, unsigned size, unsigned& consumed)
        : KindCore(PayloadIn(header, buf, size), &consumed) {}

protected:
    template <class Values>
    KindCore(FromValues mark, const typename Base::Context& context, const Values& values)
        : Base(mark, Code, context, values) {}

private:
    explicit KindCore(PayloadIn&& in, unsigned* consumed = nullptr) : Base(in) {
        if (Base::kRules.header.stream && (in.header().TraceCode() != Code || in.left() != 0))
            failReadIn(in, Base::kRules.header);
        if (consumed)
            *consumed = in.consumed();
    }
};

} // namespace protocol

/// A class that several kinds share, with public constructors that take the type code first.
template <const ReadRules& Rules, class Base, class Payload = NoPayload>
using BaseOf = protocol::Constructors<PacketOf<Rules, Base, Payload>, Form<tagTCode>, typename Base::Context::Values,
                                      typename PacketOf<Rules, Base, Payload>::Forms>;

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
