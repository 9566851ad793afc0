#pragma once

/// Messages of the target.
///
///     Message   Timestamp:8 | Priority:1, then the text as CharString packets unless it is empty

#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CMessagePayload)

/// Time, level and text of a message.
class QUORVEX_API CMessagePayload : public PayloadOperations<CMessagePayload> {
    QUORVEX_FIELD(std::uint64_t, Timestamp, kUnknown64)
    QUORVEX_FIELD(std::int8_t, Level, 0)

public:
    static constexpr std::int8_t kLogLevel = 0;     ///< of a CLogMsg
    static constexpr std::int8_t kDebugLevel = 64;  ///< of a CDebugMsg
    static constexpr std::int8_t kErrorLevel = -64; ///< of a CErrorMsg

    CMessagePayload() = default;
    CMessagePayload(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text = CCharStringSequence())
        : m_Timestamp(timestamp), m_Level(level), m_text(text) {}

    const CCharStringSequence& message() const { return m_text; }
    void message(const CCharStringSequence& text) { m_text = text; }
    void message(const char* text) { m_text = text; }
    CCharStringSequence& followingText() { return m_text; }
    const CCharStringSequence& followingText() const { return m_text; }

    static constexpr std::uint8_t Len() { return 9; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Tick, "Timestamp", self.m_Timestamp);
        visit(FieldMeaning::Number, "Priority", self.m_Level);
    }

private:
    CCharStringSequence m_text;
};

// Defined with the texts of their failures, and compiled, in MessagePackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kMessageRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kMessageRules, PlainPacket, CMessagePayload>)
/// A message packet; not to be mixed up with the entries of the library's own log, which are the global class.
class QUORVEX_API CMessage : public PacketOf<kMessageRules, PlainPacket, CMessagePayload> {
    QUORVEX_KIND(Message, PacketOf)

public:
    CMessage(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text = CCharStringSequence());
};

/// A message whose level is fixed.
template <std::int8_t kLevel> class MessageOf : public CMessage {
public:
    MessageOf() : MessageOf(kUnknown64, CCharStringSequence()) {}
    MessageOf(std::uint64_t timestamp, const CCharStringSequence& text) : CMessage(timestamp, kLevel, text) {}
    template <class NoConstructorTakesTheseArguments = void> explicit MessageOf(...) = delete;
};

class QUORVEX_API CLogMsg : public MessageOf<CMessagePayload::kLogLevel> {
public:
    using MessageOf::MessageOf;
};

class QUORVEX_API CDebugMsg : public MessageOf<CMessagePayload::kDebugLevel> {
public:
    using MessageOf::MessageOf;
};

class QUORVEX_API CErrorMsg : public MessageOf<CMessagePayload::kErrorLevel> {
public:
    using MessageOf::MessageOf;
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex
