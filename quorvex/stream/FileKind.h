#pragma once

#include "quorvex/format/TCodeInfo.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string_view>

namespace Quorvex {

/// What is in a file. A trace has no mark of its own, so it is told by its packets.
enum class FileKind {
    Trace,    ///< packets, plain or in pages; also an empty file
    Table,    ///< a plain packet table, for TraceTextReader
    PageFile, ///< the end of a trace that a program recorded in the mapped mode; it is read with the trace beside it
    Unknown,
};

/// What a file is that starts with these bytes, as far as they tell: a page of them, or all that there are. A trace
/// whose first page is destroyed looks unknown; ask looksLikeTrace of its other pages.
QUORVEX_API FileKind kindOfFile(std::string_view start);

/// Whether a block of bytes, from the start of a file or of one of its pages, can be part of a trace.
///
/// It can if it is packets from its first byte to its end, where one may be cut; each with a length that its kind can
/// have. Of a damaged one, a quarter has to be runs of packets that are no chance: of the first eight of a run, four
/// have fields, and not all the same kind. A block without a control character is text, unless it is short and packets
/// to its very end. Lack of memory throws what the packet factory throws; kindOfFile does so, too.
QUORVEX_API bool looksLikeTrace(std::string_view block);

namespace detail {
/// Bytes of a payload of that length that packets of that code have fields for; kNoFields where they cannot have such a
/// payload. Lengths that count the text are not known here.
QUORVEX_API unsigned fieldsOf(tagTCode code, std::uint8_t length);
inline constexpr unsigned kNoFields = 256;
/// Bytes of the packet that begins there, without a text behind it; 0 where its kind has no fields for all that its
/// header announces, or not all of it is there.
QUORVEX_API unsigned sizeOfPacket(std::string_view bytes);
} // namespace detail

} // namespace Quorvex
