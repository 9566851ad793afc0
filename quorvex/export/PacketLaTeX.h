#pragma once

#include "quorvex/export/PacketTableWriter.h"

namespace Quorvex {

/// Tables as a LaTeX document with one landscape longtable on A0 paper. It needs the packages geometry, fullpage,
/// lscape, color and longtable, and compiles whatever the texts of a trace hold: a character that is not ASCII is
/// written by its number, as <U+00E4>.
class QUORVEX_API CPacketLaTeX : public CPacketTableWriter {
public:
    using CPacketTableWriter::CPacketTableWriter;
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
    bool writeTCode(tagTCode code) override;
    bool writeCharString(unsigned length, const unsigned char* bytes) override;
    bool writeText(std::string_view text) override;
};

} // namespace Quorvex
