#pragma once

#include "quorvex/export/PacketTableWriter.h"

namespace Quorvex {

/// Tables as an HTML 4.01 page in ISO-8859-1. Of texts, & and < are escaped, and what is not ASCII is written by
/// references, so that the page shows what the trace holds.
class QUORVEX_API CPacketHTML : public CPacketTableWriter {
public:
    using CPacketTableWriter::CPacketTableWriter;
    using CPacketTableWriter::writeDescription;
    using CPacketTableWriter::writeLength;
    using CPacketTableWriter::writeTableHeader;
    using CPacketTableWriter::writeTCode;

    bool writePageHeader(const char* title) override;
    bool writePageFooter() override;
    bool writeTableHeader() override;
    bool writeTableFooter() override;
    bool writeRowOpen() override;
    bool writeRowClose() override;
    bool writeItemOpen(unsigned span) override;
    bool writeItemClose() override;
    bool writeDescription(tagTCode code) override; ///< of a code of 256 or more, its low byte
    bool writeTCode(tagTCode code) override;
    bool writeLength(tagTCode code) override;
    bool writeLength(CPacket& packet) override;
    bool writeCharString(unsigned length, const unsigned char* bytes) override;
    bool writeText(std::string_view text) override;
};

} // namespace Quorvex
