#include "quorvex/export/PacketHTML.h"

#include "quorvex/format/Characters.h"
#include "quorvex/packets/Keywords.h"

#include <algorithm>

namespace Quorvex {

namespace {

constexpr std::string_view kHead = "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//EN\">\n"
                                   "<HTML>\n"
                                   "<HEAD>\n"
                                   "<META http-equiv=\"Content-Type\" content=\"text/html; charset=ISO-8859-1\">\n";

constexpr std::string_view kStyle =
    "<STYLE type=\"text/css\">\n"
    "table {border-width:0px;}\n"
    "table.optional { border-width:0px; display:inline; margin:0pt}\n"
    "td { min-width:80pt; font-size:8pt; text-align:center; border-width:1px; border-style:solid; "
    "border-color:black; }\n"
    "td.used { color:green; }\n"
    "td.unused { color:red; }\n"
    "td.desc { color:black; }\n"
    "td.len  { color:black; }\n"
    "td.payload  { color:black; padding:0pt}\n"
    "table.optional td.payload { min-width:80pt; font-size:8pt; text-align:center; border-width:1px; "
    "border-style:solid; border-color:black; }\n"
    "td.repeat  { color:black; border-width:0px; }\n"
    "th { min-width:80pt; font-size:10pt; text-align:center; border-width:1px; border-style:solid ;"
    "border-color:black; }\n"
    "</STYLE>\n";

} // namespace

bool CPacketHTML::writePageHeader(const char* title) {
    return writeRaw(kHead) && writeRaw("<TITLE>") && writeText(title ? title : keywords::kDefaultTitle) &&
           writeRaw("</TITLE>\n") && writeRaw(kStyle) && writeRaw("</HEAD><BODY>");
}

bool CPacketHTML::writePageFooter() {
    return writeRaw("</BODY></HTML>\n");
}

bool CPacketHTML::writeTableHeader() {
    return writeRaw("<TABLE>\n<TR>") && (!GetWithOffset() || writeRaw("<TH>Offset</TH>")) &&
           writeRaw("<TH>Description</TH><TH>TCode</TH><TH>Length</TH>"
                    "<TH colspan=\"255\">packet payload</TH></TR>\n") &&
           writeNumbering();
}

bool CPacketHTML::writeTableFooter() {
    return writeRaw("</TABLE>\n");
}

bool CPacketHTML::writeRowOpen() {
    return writeRaw("<TR>");
}

bool CPacketHTML::writeRowClose() {
    return writeRaw("</TR>\n");
}

bool CPacketHTML::writeItemOpen(unsigned span) {
    if (span < 2)
        return writeRaw("<TD>");
    return writeRaw("<TD class=\"payload\" colspan=") && writeNumber(span) && writeRaw(">");
}

bool CPacketHTML::writeItemClose() {
    return writeRaw("</TD>");
}

bool CPacketHTML::writeDescription(tagTCode code) {
    return writeRaw("<TD class=\"desc\" >") &&
           (checkRange(code) ? writeText(CTCodeInfo::TCodeToDescription(code)) : writeNumber(code & 0xFF)) &&
           writeItemClose();
}

bool CPacketHTML::writeTCode(tagTCode code) {
    return checkRange(code) &&
           writeRaw(CTCodeInfo::TCodeIsValid(code) ? "<TD class=\"used\" >" : "<TD class=\"unused\" >") &&
           writeText(CTCodeInfo::TCodeToName(code)) && writeItemClose();
}

bool CPacketHTML::writeLength(tagTCode code) {
    return checkRange(code) && writeRaw("<TD class=\"len\" > ") && writeRange(getSizeFromTCode(code)) &&
           writeRaw(" ") && writeItemClose();
}

bool CPacketHTML::writeLength(CPacket& packet) {
    return writeRaw("<TD class=\"len\" >") && writeNumber(packet.Length()) && writeItemClose();
}

bool CPacketHTML::writeCharString(unsigned length, const unsigned char* bytes) {
    return writeQuoted(length, bytes);
}

bool CPacketHTML::writeText(std::string_view text) {
    const auto isPlain = [](char c) { return static_cast<unsigned char>(c) < 0x80 && c != '<' && c != '&'; };
    bool written = good();
    while (written && !text.empty()) {
        if (const auto count = static_cast<std::size_t>(std::ranges::find_if_not(text, isPlain) - text.begin())) {
            written = writeRaw(text.substr(0, count));
            text.remove_prefix(count);
            continue;
        }
        const Character character = firstCharacter(text);
        if (character.code == '<')
            written = writeRaw("&lt;");
        else if (character.code == '&')
            written = writeRaw("&amp;");
        else
            written = writeRaw("&#") && writeNumber(character.code) && writeRaw(";");
        text.remove_prefix(character.size);
    }
    return written;
}

} // namespace Quorvex
