#include "quorvex/packets/PacketImplementation.h"

#include <string>

namespace Quorvex::protocol {

namespace {

const char* nameOf(Step step) {
    static constexpr const char* kNames[] = {"header data", "core context", "function identifier"};
    return kNames[static_cast<unsigned>(step)];
}

void logFailedRead(tagTCode code, Step step, bool fromStream) {
    logError(std::string(CTCodeInfo::TCodeToName(code)) + ": Failed to read " + nameOf(step) + " from " +
             (fromStream ? "stream." : "buffer."));
}

void logInvalidHeader(tagTCode code, bool fromStream) {
    logError(std::string(CTCodeInfo::TCodeToName(code)) + ": Invalid header data read from " +
             (fromStream ? "stream." : "buffer."));
}

bool load(CPacket& packet, const PlainRead& how, PayloadIn& in) {
    if (in.header().TraceCode() == packet.TraceCode()) {
        try {
            if (how.load(packet, in))
                return true;
        } catch (const std::exception&) {
            if (how.logged)
                logFailedRead(packet.TraceCode(), in.held(how.context) ? Step::Payload : Step::Context,
                              in.fromStream());
            return false;
        }
    }
    if (how.logged)
        logInvalidHeader(packet.TraceCode(), in.fromStream());
    return false;
}

} // namespace

void failReadIn(bool fromStream, const MediaTexts& texts) {
    CQVXException::ThrowReadConstructor(fromStream ? texts.stream : texts.buffer);
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

unsigned readPlain(CPacket& packet, PlainRead how, const char* buf, unsigned size) {
    CPacketHeader header;
    if (!header.read(buf, size)) {
        if (how.logged)
            logFailedRead(packet.TraceCode(), Step::Header, false);
        return 0;
    }
    if (size < how.least && !how.logged)
        return 0;
    PayloadIn in(header, buf + CPacketHeader::Len(), size - CPacketHeader::Len());
    return load(packet, how, in) ? CPacketHeader::Len() + in.consumed() : 0;
}

bool readPlain(CPacket& packet, PlainRead how, std::istream& stream) {
    CPacketHeader header;
    if (!header.read(stream)) {
        if (how.logged)
            logFailedRead(packet.TraceCode(), Step::Header, true);
        return false;
    }
    PayloadIn in(header, stream);
    return load(packet, how, in);
}

} // namespace Quorvex::protocol
