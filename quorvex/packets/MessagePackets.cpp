#include "quorvex/packets/MessagePackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

constexpr ReadRules kMessageRules{.header = "CMessage: Read-In constructor was supplied invalid header data.",
                                  .payload = "CMessage: Read-In constructor could not read payload.",
                                  .text = "CMessage: Read-In constructor could not read followup message.",
                                  .textReadLog = "CMessage: Read of followup message failed!",
                                  .textWriteLog = "CMessage: Write of followup message failed!"};

CMessage::CMessage(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text)
    : PacketOf({}, kCode, timestamp, level, text) {}

template class PayloadOperations<CMessagePayload>;

template class PacketOf<kMessageRules, PlainPacket, CMessagePayload>;

QUORVEX_COMPILE_KIND(Message)

} // namespace Quorvex
