#include "tests/support/CursorMatch.h"

#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/TraceCursor.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "tests/support/Doubles.h"

#include <memory>
#include <optional>

namespace Quorvex::test {

namespace {

class Reader : public CTraceReaderPlain {
public:
    using CTraceReaderPlain::CTraceReaderPlain;
    using CTraceReaderPlain::remain;
};

/// The bytes of a packet's parts, and its name. Many kinds share a part, which is compiled once.
struct Contents {
    std::string text;
    template <class Part> void operator()(const Part& part) {
        char bytes[UINT8_MAX + 1] = {};
        encodePart(part, bytes);
        text.append(bytes, partSize(part));
        if constexpr (HasFollowingText<const Part>)
            text.append("|").append(part.followingText().view());
    }
};

template <class Parts> std::string contentsOf(const Parts& parts) {
    Contents contents;
    parts.visitParts(contents);
    return contents.text;
}

std::string textIn(const CPacket& packet) {
    if (const auto* string = packetAs<CCharString>(packet))
        return std::string(reinterpret_cast<const char*>(string->data()), string->Length());
    const CCharStringSequence* text = textOf(packet);
    return text ? std::string(text->view()) : "";
}

/// Whether the cursor shows the packet as its class does.
bool showsContents(const CTraceCursor& cursor, const CPacket& packet) {
    bool isSame = packet.TraceCode() == CharString;
    visitKind(packet, [&]<class Kind>(const Kind& kind) {
        const auto view = cursor.as<Kind>();
        isSame = view && contentsOf(*view) == contentsOf(kind);
    });
    return isSame;
}

template <class Context, class Values> bool isSame(const std::optional<Context>& expected, const Values& values) {
    return expected.has_value() == values.has_value() && (!expected || *expected == Context(*values, FromValues()));
}

/// What the cursor tells otherwise than the object does; null when it tells the same.
const char* difference(const CTraceCursor& cursor, CPacket& packet, const CContexts& contexts) {
    const PacketPointer own(cursor.packet());
    const auto headerAndWire = [](CPacket& of) {
        return std::to_string(static_cast<CPacketHeader&>(of).Length()) + " " + wireOf(of);
    };
    if (cursor.TraceCode() != packet.TraceCode())
        return "kind";
    if (!own || headerAndWire(*own) != headerAndWire(packet))
        return "object";
    if (cursor.Length() != packet.Length())
        return "length";
    if (cursor.text() != textIn(packet))
        return "text";
    if (cursor.tick() != contexts.tickOf(packet))
        return "tick";
    if (!isSame(contexts.coreOf(packet), cursor.contextOf<CCoreContext>()) ||
        !isSame(contexts.busOf(packet), cursor.contextOf<CBusContext>()) ||
        !isSame(contexts.systemOf(packet), cursor.contextOf<CSystemContext>()))
        return "context";
    if (!showsContents(cursor, packet))
        return "fields";
    const PacketPointer absolute(contexts.absolute(packet));
    return absolute && !showsContents(cursor, *absolute) ? "fields of the absolute form" : nullptr;
}

} // namespace

std::string cursorMismatch(const std::string& trace, unsigned portion) {
    MemorySource bytes(trace);
    Reader reader(bytes);
    MemorySource portions(trace, portion);
    std::optional<CTraceCursor> either;
    CTraceCursor& cursor = portion == 0 ? either.emplace(std::string_view(trace)) : either.emplace(portions);
    CContexts contexts;
    TraceDamage damage;
    std::uint64_t damageEnd = kUnknown64;
    const auto addDamage = [&](std::uint64_t from, std::uint64_t to) {
        damage.first = damage.places == 0 ? from : damage.first;
        damage.places += from != damageEnd;
        damage.bytes += to - from;
        damageEnd = to;
    };
    while (true) {
        const std::uint64_t offset = reader.position();
        const std::string at = " at offset " + std::to_string(offset);
        const PacketPointer packet(reader.get());
        if (!packet && (reader.position() != offset || reader.skip())) {
            addDamage(offset, reader.position());
            continue;
        }
        if (cursor.next() != bool(packet))
            return (packet ? "passes over the packet" : "goes on") + at;
        if (!packet)
            break;
        if (cursor.offset() != offset || cursor.end() != reader.position())
            return "stands at " + std::to_string(cursor.offset()) + " to " + std::to_string(cursor.end()) +
                   ", not at " + std::to_string(offset) + " to " + std::to_string(reader.position());
        if (const char* what = difference(cursor, *packet, contexts))
            return what + at;
        const auto length = static_cast<unsigned char>(trace[static_cast<std::size_t>(offset) + 1]);
        if (packet->Length() < length && cursor.textState() != CTraceCursor::Text::Counted)
            addDamage(offset + CPacketHeader::Len() + packet->Length(), offset + CPacketHeader::Len() + length);
        contexts.note(*packet);
    }
    if (cursor.end() != reader.position() || cursor.left() != reader.remain())
        return "stops with " + std::to_string(cursor.left()) + " bytes left, not " + std::to_string(reader.remain());
    const TraceDamage& own = cursor.damage();
    if (own.places != damage.places || own.bytes != damage.bytes || own.first != damage.first)
        return "tells other damage: " + std::to_string(own.bytes) + " bytes in " + std::to_string(own.places) +
               " places";
    return "";
}

} // namespace Quorvex::test
