#pragma once

/// What a packet holds, without the packet: for those who look at packets in a trace and make no objects of them.

#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

namespace detail {

template <class Parts> class PartsView;

/// The context and the payloads of a packet, taken from its bytes.
template <class ContextPart, class... Payload>
class PartsView<PartList<ContextPart, Payload...>> : public ContextPart, public Payload... {
public:
    using Context = ContextPart; ///< where and when it happened

    /// Calls `visit` with the context, then with each payload, in wire order.
    template <class Visit> void visitParts(Visit&& visit) const {
        visit(static_cast<const Context&>(*this));
        (visit(static_cast<const Payload&>(*this)), ...);
    }

protected:
    /// From the bytes of all parts, or of those behind a context that is known. They are known to make the packet.
    PartsView(const char* bytes, unsigned size) {
        decodePart(static_cast<Context&>(*this), bytes, Context::Len());
        decode(bytes + Context::Len(), size - Context::Len());
    }
    PartsView(const typename Context::Values& context, const char* bytes, unsigned size)
        : Context(context, FromValues()) {
        decode(bytes, size);
    }

private:
    void decode([[maybe_unused]] const char* bytes, [[maybe_unused]] unsigned size) {
        [[maybe_unused]] const auto take = [&]<class Part>(Part& part) {
            const unsigned own = VariablePart<Part> ? size : unsigned{Part::Len()};
            decodePart(part, bytes, own);
            bytes += own;
            size -= own;
        };
        (take(static_cast<Payload&>(*this)), ...);
    }
};

} // namespace detail

/// The parts of a packet of a kind, with the operations by which the class of the kind hands them out: a
/// PacketView<CFunctionEnter> has Tick() and TgtFuncId(). A definition has its name.
template <class Packet> class PacketView final : public detail::PartsView<typename Packet::Parts> {
public:
    static constexpr tagTCode kCode = Packet::kCode; ///< of the kind

    /// From the payload of such a packet, and the text behind it. Throws the out-of-memory CQVXException.
    PacketView(const char* payload, unsigned size, std::string_view text)
        : detail::PartsView<typename Packet::Parts>(payload, size) {
        setText(text);
    }
    /// From what stands behind the context, which is given.
    template <class Values>
    PacketView(const Values& context, const char* payload, unsigned size, std::string_view text)
        : detail::PartsView<typename Packet::Parts>(context, payload, size) {
        setText(text);
    }

private:
    void setText(std::string_view text) {
        if constexpr (HasFollowingText<PacketView>) {
            if (!text.empty())
                this->followingText() = CCharStringSequence(reinterpret_cast<const unsigned char*>(text.data()),
                                                            static_cast<unsigned>(text.size()));
        }
    }
};

} // namespace Quorvex
