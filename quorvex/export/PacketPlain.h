#pragma once

#include "quorvex/export/PacketTableWriter.h"

namespace Quorvex {

/// Tables as tab-separated text.
class QUORVEX_API CPacketPlain : public CPacketTableWriter {
public:
    using CPacketTableWriter::CPacketTableWriter;
    using CPacketTableWriter::writeDescription;
    using CPacketTableWriter::writeTableHeader;

    bool writePageHeader(const char* title) override;
    bool writeTableHeader() override;
    bool writeTableFooter() override;
    bool writeRowClose() override;
    bool writeItemOpen(unsigned span) override;
    bool writeItemClose() override;
    bool writeDescription(CPacket& packet) override; ///< padded to 30 characters
};

} // namespace Quorvex
