#include "quorvex/packets/PacketImplementation.h"

#include <string>

namespace Quorvex::protocol {

namespace {

const char* nameOf(Step step) {
    static constexpr const char* kNames[] = {"header data", "core context", "function identifier"};
    return kNames[static_cast<unsigned>(step)];
}

} // namespace

void failReadIn(bool fromStream, const MediaTexts& texts) {
    CQVXException::ThrowReadConstructor(fromStream ? texts.stream : texts.buffer);
}

void logFailedRead(tagTCode code, Step step, bool fromStream) {
    logError(std::string(CTCodeInfo::TCodeToName(code)) + ": Failed to read " + nameOf(step) + " from " +
             (fromStream ? "stream." : "buffer."));
}

void logFailedWrite(tagTCode code, Step step, bool toStream) {
    logError(std::string(CTCodeInfo::TCodeToName(code)) + ": Failed to write " + nameOf(step) + " to " +
             (toStream ? "stream." : "buffer."));
}

unsigned refuseRoom(const CPacket& packet, unsigned size, unsigned lengthOfContext) {
    logFailedWrite(packet.TraceCode(),
                   size < CPacketHeader::Len()                     ? Step::Header
                   : size < CPacketHeader::Len() + lengthOfContext ? Step::Context
                                                                   : Step::Payload,
                   false);
    return 0;
}

void logInvalidHeader(tagTCode code, bool fromStream) {
    logError(std::string(CTCodeInfo::TCodeToName(code)) + ": Invalid header data read from " +
             (fromStream ? "stream." : "buffer."));
}

} // namespace Quorvex::protocol
