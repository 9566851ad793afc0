#pragma once

/// Messages of the target.
///
///     Message   Timestamp:8 | Priority:1, then the text as CharString packets unless it is empty

#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

/// Time, level and text of a message. The level is signed: log 0, debug 64, error -64.
class QUORVEX_API CMessagePayload : public PayloadOperations<CMessagePayload> {
    QUORVEX_FIELD(std::uint64_t, Timestamp, kUnknown64)
    QUORVEX_FIELD(std::int8_t, Level, 0)

public:
    using Forms =
        FormList<Form<std::uint64_t, std::int8_t>, Form<std::uint64_t, std::int8_t, const CCharStringSequence&>>;

    CMessagePayload() = default;
    CMessagePayload(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text = CCharStringSequence())
        : m_Timestamp(timestamp), m_Level(level), m_text(text) {}

    const CCharStringSequence& message() const { return m_text; }
    void message(const CCharStringSequence& text) { m_text = text; }
    void message(const char* text) { m_text = text; }
    CCharStringSequence& followingText() { return m_text; }
    const CCharStringSequence& followingText() const { return m_text; }

    static constexpr std::uint8_t Len() { return 9; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Tick, "Timestamp", self.m_Timestamp);
        visit(FieldMeaning::Number, "Priority", self.m_Level);
    }

private:
    CCharStringSequence m_text;
};

inline constexpr ReadRules kMessageRules{.header = "CMessage: Read-In constructor was supplied invalid header data.",
                                         .payload = "CMessage: Read-In constructor could not read payload.",
                                         .text = "CMessage: Read-In constructor could not read followup message.",
                                         .textReadLog = "CMessage: Read of followup message failed!",
                                         .textWriteLog = "CMessage: Write of followup message failed!"};

/// A message packet; not to be mixed up with the entries of the library's own log, which are the global class.
QUORVEX_KIND(Message, PacketOf<kMessageRules, PlainPacket, CMessagePayload>)

/// A message whose level is fixed.
template <int kLevel> class MessageOf : public CMessage {
public:
    MessageOf() : MessageOf(kUnknown64, CCharStringSequence()) {}
    MessageOf(std::uint64_t timestamp, const CCharStringSequence& text)
        : CMessage(timestamp, static_cast<std::int8_t>(kLevel), text) {}
};

class QUORVEX_API CLogMsg : public MessageOf<0> {
public:
    using MessageOf::MessageOf;
};

class QUORVEX_API CDebugMsg : public MessageOf<0x40> {
public:
    using MessageOf::MessageOf;
};

class QUORVEX_API CErrorMsg : public MessageOf<-0x40> {
public:
    using MessageOf::MessageOf;
};

} // namespace Quorvex
