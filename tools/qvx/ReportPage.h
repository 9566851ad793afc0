#pragma once

#include "Json.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

/// The page that shows a trace, without one: what stands behind it is the trace.
std::string_view emptyReportPage();

/// Numbers of a report, one behind the other: whole ones take seven bits a byte, the lowest first, with the top bit set
/// where more follow.
class ReportColumn {
public:
    void add(std::uint64_t number) {
        for (; number >= 0x80; number >>= 7)
            m_bytes += static_cast<char>(number | 0x80);
        m_bytes += static_cast<char>(number);
    }
    /// With its sign as the lowest bit.
    void addSigned(std::int64_t number) {
        const auto bits = static_cast<std::uint64_t>(number);
        add(number < 0 ? ~(bits << 1) : bits << 1);
    }
    void addReal(double number); ///< eight bytes, the lowest first
    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_bytes;
};

/// A page with a trace. Its data are blocks, each deflated by itself and in base 64. The first one holds lines of JSON;
/// the others are the columns of all tracks, in the order of the lines that tell of them.
class ReportPage {
public:
    void add(const std::string& lines) { m_lines += lines; }
    /// A line that tells of a track, and its columns.
    void addTrack(JsonLine line, const std::vector<ReportColumn>& columns);
    /// Writes all of it; whether that has failed the stream tells.
    void write(std::ostream& out) const;

private:
    std::string m_lines;
    std::string m_data;
};

} // namespace qvx
