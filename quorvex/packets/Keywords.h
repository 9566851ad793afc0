#pragma once

/// The words of packet tables. Whoever writes tables and whoever reads them agree on these.

#include <string_view>

namespace Quorvex::keywords {

/// The title of a page that is given none.
inline constexpr const char* kDefaultTitle = "Quorvex (QVX) packet description";
/// The heads of plain tables with and without offsets.
inline constexpr std::string_view kHeadWithOffset = "Offset\t\tDescription \tTCode \tLength \tpacket payload ";
/// See kHeadWithOffset.
inline constexpr std::string_view kHeadWithoutOffset = "\t \tDescription \tTCode \tLength \tpacket payload ";

inline constexpr std::string_view kInvalid = "Invalid";             ///< an unknown tick, address, context or offset
inline constexpr std::string_view kUnknownLength = "UnknownLength"; ///< the frame length of an open trace
/// By TraceExpansion.
inline constexpr std::string_view kExpansions[] = {"UnknownExpanded", "NotExpanded", "Expanded", "MixExpanded"};
/// By the exception-frames flag.
inline constexpr std::string_view kExceptionFrames[] = {"NoExceptionFrames", "ExceptionFrames"};
/// By BusSignals.
inline constexpr std::string_view kBusAccesses[] = {"BusAccUnk", "BusAccRead", "BusAccWrite", "BusAccReadWrite"};
/// Begins numbers in hexadecimal, and texts that are shown as their bytes.
inline constexpr std::string_view kHexPrefix = "0x";

} // namespace Quorvex::keywords
