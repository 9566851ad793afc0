#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Quorvex {

/// The kind of a packet. On the wire it is one byte; larger values exist only by a cast and name nothing.
enum tagTCode : std::uint32_t {
#define QUORVEX_TCODE(code, name, description, layout, role, text) name = code,
#include "quorvex/format/TCodes.def"
};

/// One field of a layout string: `Name:size`, `Name:min-max`, `Name:size{min-max}` or `Name:size:min-max`.
struct LayoutField {
    std::string name;
    std::pair<unsigned, unsigned> size;  ///< smallest and largest width in bytes
    std::pair<unsigned, unsigned> count; ///< fewest and most times that the field occurs
};

/// A parsed layout string. The fields may repeat as a whole; no registered layout uses that.
struct QUORVEX_API Layout {
    std::vector<LayoutField> fields;
    std::pair<unsigned, unsigned> repetition{1, 1}; ///< fewest and most

    /// Smallest and largest payload in bytes.
    std::pair<unsigned, unsigned> length() const;
    /// Parses the layout of a code; the log gets a trace message, and an error for a brace that is not closed, which
    /// makes the layout empty. A code that names nothing has an empty layout.
    static Layout of(tagTCode code);
    /// Parses any layout text; `name` is what the trace message calls it.
    static Layout parse(const std::string& name, const std::string& text);
};

/// The registry of all 256 codes. All queries are safe from any thread. A code of 256 or more is reported to the
/// message log and answered with false, null or (0, 0).
class QUORVEX_API CTCodeInfo {
public:
    static bool TCodeIsValid(tagTCode code);
    /// Name, one-line description and layout string; static texts.
    static const char* TCodeToName(tagTCode code);
    static const char* TCodeToDescription(tagTCode code); ///< what the kind tells, in words
    static const char* TCodeToFormat(tagTCode code);      ///< the layout of the kind
    /// Smallest and largest payload length in bytes that the layout allows.
    static std::pair<unsigned, unsigned> TCodeToLength(tagTCode code);

    CTCodeInfo& operator=(const CTCodeInfo&) = default;

protected:
    CTCodeInfo() = default;
    CTCodeInfo(const CTCodeInfo&) = default;
    ~CTCodeInfo() = default;
};

} // namespace Quorvex
