#include "ReportPage.h"

#include "Print.h"

#include <algorithm>
#include <bit>
#include <new>
#include <zlib.h>

namespace qvx {

namespace {

/// Blocks become texts, which browsers read as a whole: so long that they deflate well, and no longer.
constexpr std::size_t kBlock = std::size_t{4} << 20;

std::string deflated(std::string_view bytes) {
    uLongf size = compressBound(static_cast<uLong>(bytes.size()));
    std::string out(size, '\0');
    const int result = compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                                 reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uLong>(bytes.size()), 9);
    if (result != Z_OK) // there is room enough, so memory is short
        throw std::bad_alloc();
    out.resize(size);
    return out;
}

std::string base64(std::string_view bytes) {
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        unsigned bits = 0;
        for (std::size_t i = 0; i < 3; ++i)
            bits = bits << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        for (unsigned i = 0; i < 4; ++i)
            out += i <= count ? kDigits[bits >> (18 - 6 * i) & 0x3F] : '=';
    }
    return out;
}

void writeBlock(std::ostream& out, std::string_view bytes) {
    print(out, "<script type=\"application/octet-stream\" data-size=\"{}\">{}</script><script>q()</script>\n",
          bytes.size(), base64(deflated(bytes)));
}

} // namespace

void ReportColumn::addReal(double number) {
    auto bits = std::bit_cast<std::uint64_t>(number);
    for (unsigned i = 0; i < sizeof bits; ++i, bits >>= 8)
        m_bytes += static_cast<char>(bits);
}

void ReportPage::addTrack(JsonLine line, const std::vector<ReportColumn>& columns) {
    std::vector<std::uint64_t> sizes;
    for (const ReportColumn& column : columns) {
        sizes.push_back(column.bytes().size());
        m_data += column.bytes();
    }
    add(line.add("columns", sizes).text());
}

void ReportPage::write(std::ostream& out) const {
    out << emptyReportPage();
    writeBlock(out, m_lines);
    for (std::size_t at = 0; at < m_data.size(); at += kBlock)
        writeBlock(out, std::string_view(m_data).substr(at, kBlock));
}

} // namespace qvx
