#pragma once

#include "quorvex/format/Context.h"
#include "quorvex/format/PacketHeader.h"
#include "quorvex/packets/StringPackets.h"

#include <cassert>
#include <cstdint>
#include <cstring>

namespace Quorvex {

/// Bytes of a page of the paged form.
inline constexpr unsigned kPageSize = 0x40000;

/// The rules of the paged form, in the words of docs/format.md. Who writes pages, or looks at a trace by pages, takes
/// them from here and nowhere else.
///
///     page = [ Sync ] [ BusSync ] [ SystemSync ] { packet, with its text } { Fill }
///
/// - Pages begin at the multiples of kPageSize from the file's start; a reader can begin at any of them.
/// - No packet crosses a page's end. What is left of a page is Fill packets. Since no packet has one byte, no gap of
///   one byte is left: a packet goes on the next page when it would leave one.
/// - A packet and its text stand on one page, behind the page's Sync packets.
/// - Every page but the first begins with a Sync, a BusSync and a SystemSync packet, in this order, each as far as the
///   trace has had one before: the references as they are there (CContexts::writeSync).
///
/// So Fill packets up to a page's end, and sync packets behind it that tell what is known, are the pages' and not the
/// trace's. The last page of a file ends with the file, and is not padded.
namespace pages {

/// How far into its page a position of the file is.
constexpr unsigned offsetIn(std::uint64_t position) {
    return static_cast<unsigned>(position % kPageSize);
}

/// The number of the page that a position of the file is on; the first is 0.
constexpr std::uint64_t numberAt(std::uint64_t position) {
    return position / kPageSize;
}

/// Where the page begins that a position of the file is on.
constexpr std::uint64_t beginAt(std::uint64_t position) {
    return position - offsetIn(position);
}

/// Where that page ends.
constexpr std::uint64_t endAt(std::uint64_t position) {
    return beginAt(position) + kPageSize;
}

/// The position, or else the next one, at which a page begins.
constexpr std::uint64_t nextBegin(std::uint64_t position) {
    return beginAt(position + kPageSize - 1);
}

/// Where the page of that number begins.
constexpr std::uint64_t beginOf(std::uint64_t page) {
    return page * kPageSize;
}

/// How many pages a file of that size has.
constexpr std::uint64_t countIn(std::uint64_t size) {
    return numberAt(size + kPageSize - 1);
}

/// Whether a page begins there, and another one ends.
constexpr bool isBreak(std::uint64_t position) {
    return position > 0 && offsetIn(position) == 0;
}

/// Whether a packet that takes the bytes of the file from `from` to before `to` crosses a page's end.
constexpr bool crossesEnd(std::uint64_t from, std::uint64_t to) {
    return from < to && numberAt(from) != numberAt(to - 1);
}

/// Bytes that packets can still take of a page that is filled so far.
constexpr unsigned room(unsigned fill) {
    return fill < kPageSize ? kPageSize - fill : 0;
}

/// Whether a packet, with its text, may come next on a page that is filled so far.
constexpr bool fits(unsigned size, unsigned fill) {
    const unsigned left = room(fill);
    return size == left || (left >= CPacketHeader::Len() && size <= left - CPacketHeader::Len());
}

/// Ends a page that is filled so far: pads it. False, with nothing done, where a single byte is left.
inline bool end(char* page, unsigned fill) {
    unsigned left = room(fill);
    if (left == 1)
        return false;
    unsigned most = CPacketHeader::Len() + UINT8_MAX;
    while (left % most == 1) // or the last would have one byte
        --most;
    while (left > 0) {
        const unsigned size = left < most ? left : most;
        assert(size >= CPacketHeader::Len());
        char* packet = page + (kPageSize - left);
        CPacketHeader header(Fill, static_cast<std::uint8_t>(size - CPacketHeader::Len()));
        header.write(packet, size);
        std::memset(packet + CPacketHeader::Len(), 0x80, size - CPacketHeader::Len());
        left -= size;
    }
    return true;
}

/// Bytes that the restated contexts take of a page when there are all three.
inline constexpr unsigned kMostRestated =
    3 * CPacketHeader::Len() + CCoreContext::Len() + CBusContext::Len() + CSystemContext::Len();
/// A text of that many bytes always fits a page, with its packet.
inline constexpr unsigned kFittingText = 259000;
static_assert(CCharStringSequence::StreamSize(kFittingText) + CPacketHeader::Len() + UINT8_MAX <=
                  room(kMostRestated) - CPacketHeader::Len(),
              "the page has room for what docs/format.md says");

} // namespace pages

} // namespace Quorvex
