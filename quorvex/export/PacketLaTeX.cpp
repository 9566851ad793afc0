#include "quorvex/export/PacketLaTeX.h"

#include "quorvex/format/Characters.h"
#include "quorvex/packets/Keywords.h"

#include <algorithm>

namespace Quorvex {

namespace {

constexpr std::string_view kPreamble = "\\documentclass[10pt]{article}\n"
                                       "\\usepackage[a0paper]{geometry}\n"
                                       "\\usepackage{fullpage}\n"
                                       "\\usepackage{lscape}\n"
                                       "\\usepackage{color}\n"
                                       "\\usepackage{longtable}\n"
                                       "\n";

/// How an ASCII character is written so that it shows; empty when as itself. The fonts of mathematics, which are always
/// there, have what the text font lacks.
constexpr std::string_view escaped(std::uint32_t character) {
    switch (character) {
    case '\\':
        return "$\\backslash$";
    case '{':
        return "\\{";
    case '}':
        return "\\}";
    case '$':
        return "\\$";
    case '&':
        return "\\&";
    case '#':
        return "\\#";
    case '%':
        return "\\%";
    case '_':
        return "\\_";
    case '^':
        return "\\^{}";
    case '~':
        return "\\~{}";
    case '<':
        return "$<$";
    case '>':
        return "$>$";
    case '|':
        return "$|$";
    case '-': // two of them would become a dash
        return "{-}";
    default:
        return {};
    }
}

} // namespace

bool CPacketLaTeX::writePageHeader(const char* title) {
    return writeRaw(kPreamble) && writeRaw("\\begin{document}\n\\section*{") &&
           writeText(title ? title : keywords::kDefaultTitle) && writeRaw("}\n");
}

bool CPacketLaTeX::writePageFooter() {
    return writeRaw("\\end{document}\n");
}

bool CPacketLaTeX::writeTableHeader() {
    const bool offset = GetWithOffset();
    return writeRaw("\\tiny\n\\begin{landscape}\n\\begin{longtable}{l") &&
           writeRaw(std::string(offset ? 259 : 258, 'c')) && writeRaw("}\n") &&
           (!offset || writeRaw("\\textbf{Offset} &")) &&
           writeRaw("\\textbf{Description} & \\textbf{TCode} & \\textbf{Length} & "
                    "\\multicolumn{255}{|c|}{packet payload}\\\\\n") &&
           writeNumbering();
}

bool CPacketLaTeX::writeTableFooter() {
    return writeRaw("\\end{longtable}\n\\end{landscape}\n");
}

bool CPacketLaTeX::writeRowOpen() {
    return writeRaw(" ");
}

bool CPacketLaTeX::writeRowClose() {
    return writeRaw("\\\\\n");
}

bool CPacketLaTeX::writeItemOpen(unsigned span) {
    if (span < 2)
        return writeRaw("{");
    return writeRaw("\\multicolumn{") && writeNumber(span) && writeRaw("}{|c|}{");
}

bool CPacketLaTeX::writeItemClose() {
    return writeRaw("}&");
}

bool CPacketLaTeX::writeTCode(tagTCode code) {
    return checkRange(code) && writeRaw(CTCodeInfo::TCodeIsValid(code) ? "{\\color{green}" : "{\\color{red}") &&
           writeText(CTCodeInfo::TCodeToName(code)) && writeItemClose();
}

bool CPacketLaTeX::writeCharString(unsigned length, const unsigned char* bytes) {
    return writeQuoted(length, bytes);
}

bool CPacketLaTeX::writeText(std::string_view text) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    const auto isPlain = [](char c) { return c >= 0x20 && c < 0x7F && escaped(static_cast<unsigned char>(c)).empty(); };
    bool written = good();
    while (written && !text.empty()) {
        if (const auto count = static_cast<std::size_t>(std::ranges::find_if_not(text, isPlain) - text.begin())) {
            written = writeRaw(text.substr(0, count));
            text.remove_prefix(count);
            continue;
        }
        const Character character = firstCharacter(text);
        if (character.code < 0x20 || character.code >= 0x7F) {
            written = writeRaw("$<$U+");
            for (int shift = character.code > 0xFFFF ? 20 : 12; written && shift >= 0; shift -= 4)
                written = writeRaw({kDigits + ((character.code >> shift) & 15), 1});
            written = written && writeRaw("$>$");
        } else {
            written = writeRaw(escaped(character.code));
        }
        text.remove_prefix(character.size);
    }
    return written;
}

} // namespace Quorvex
