#include "quorvex/export/PerfettoWriter.h"

#include "quorvex/export/JsonText.h"
#include "quorvex/platform/LittleEndian.h"

#include <cstring>
#include <set>

namespace Quorvex {

namespace {

// Numbers of fields, by the messages that they are of.
enum Trace : std::uint32_t { Packet = 1 };
enum TracePacket : std::uint32_t {
    PacketTimestamp = 8,
    SequenceId = 10,
    PacketTrackEvent = 11,
    PacketInternedData = 12,
    SequenceFlags = 13,
    PacketTrackDescriptor = 60,
    FirstPacketOnSequence = 87,
};
enum InternedData : std::uint32_t { EventNames = 2 };
enum EventName : std::uint32_t { Iid = 1, Name = 2 };
enum TrackDescriptor : std::uint32_t {
    Uuid = 1,
    TrackName = 2,
    Process = 3,
    Thread = 4,
    ParentUuid = 5,
    Counter = 8,
    SiblingMergeBehavior = 15,
};
enum ProcessDescriptor : std::uint32_t { ProcessPid = 1, ProcessName = 6 };
enum ThreadDescriptor : std::uint32_t { ThreadPid = 1, ThreadTid = 2, ThreadName = 5 };
enum CounterDescriptor : std::uint32_t { UnitName = 6 };
enum TrackEvent : std::uint32_t {
    DebugAnnotations = 4,
    EventType = 9,
    NameIid = 10,
    TrackUuid = 11,
    EventOwnName = 23,
    EventValue = 30,
    EventDoubleValue = 44,
};
enum DebugAnnotation : std::uint32_t { UintValue = 3, IntValue = 4, StringValue = 6, AnnotationName = 10 };

constexpr std::uint64_t kStateCleared = 1, kNeedsState = 2; ///< SequenceFlags
constexpr std::uint64_t kMergeNone = 2;                     ///< SiblingMergeBehavior
/// EventType, by the type of a fact.
constexpr std::uint64_t kEventTypes[] = {1, 2, 3, 4};
/// Names are told in packets of about that size.
constexpr std::size_t kNamesAtOnce = 0x8000;
constexpr std::size_t kMostVarint = 10;
/// What an event without a name of its own takes at most, with all around it: tags and sizes, flags and so on of few
/// bytes, three numbers.
constexpr std::size_t kMostPlain = 20 + 3 * kMostVarint;

char* putVarint(char* to, std::uint64_t value) {
    for (; value >= 0x80; value >>= 7)
        *to++ = static_cast<char>(value | 0x80);
    *to++ = static_cast<char>(value);
    return to;
}
char* putNumber(char* to, std::uint32_t field, std::uint64_t value) {
    return putVarint(putVarint(to, std::uint64_t{field} << 3), value);
}

void addVarint(std::string& to, std::uint64_t value) {
    char bytes[kMostVarint];
    to.append(bytes, putVarint(bytes, value));
}
void addNumber(std::string& to, std::uint32_t field, std::uint64_t value) {
    char bytes[2 * kMostVarint];
    to.append(bytes, putNumber(bytes, field, value));
}
void addBytes(std::string& to, std::uint32_t field, std::string_view bytes) {
    addVarint(to, std::uint64_t{field} << 3 | 2);
    addVarint(to, bytes.size());
    to += bytes;
}
/// A text: well-formed UTF-8.
void addText(std::string& to, std::uint32_t field, std::string_view text) {
    addBytes(to, field, wellFormed(text));
}

/// A packet of the file, which stands on the only sequence.
std::string packetOf(std::uint32_t field, std::string_view message, std::uint64_t flags) {
    std::string packet;
    addNumber(packet, SequenceId, 1);
    addNumber(packet, SequenceFlags, flags);
    if (flags == kStateCleared)
        addNumber(packet, FirstPacketOnSequence, 1);
    else
        addBytes(packet, field, message);
    std::string framed;
    addBytes(framed, Packet, packet);
    return framed;
}

/// What stands before an event, but for its size.
[[gnu::always_inline]] inline char* putHead(char* to, std::uint64_t time) {
    to = putNumber(to, PacketTimestamp, time);
    to = putNumber(to, SequenceId, 1);
    return putVarint(putNumber(to, SequenceFlags, kNeedsState), PacketTrackEvent << 3 | 2);
}
/// An event, but for a name of its own and its fields.
[[gnu::always_inline]] inline char* putEvent(char* to, const CTrackWriter::Fact& fact) {
    to = putNumber(to, EventType, kEventTypes[unsigned(fact.type)]);
    to = putNumber(to, TrackUuid, fact.track + std::uint64_t{1});
    if (fact.type == CTrackWriter::Type::Value) {
        if (fact.value.form != CTrackWriter::Form::Real)
            return putNumber(to, EventValue, fact.value.number);
        to = putVarint(to, EventDoubleValue << 3 | 1);
        storeLittleEndian(to, fact.value.number);
        return to + 8;
    }
    const bool isNamed = fact.type != CTrackWriter::Type::End && fact.label != CTrackWriter::kNoLabel;
    return isNamed ? putNumber(to, NameIid, fact.label + std::uint64_t{1}) : to;
}
bool hasOwnName(const CTrackWriter::Fact& fact) {
    return fact.label == CTrackWriter::kNoLabel &&
           (fact.type == CTrackWriter::Type::Begin || fact.type == CTrackWriter::Type::Instant);
}

} // namespace

void CPerfettoWriter::startFile() {
    add(packetOf(0, {}, kStateCleared));
    std::string names, message;
    const auto tellNames = [&] {
        if (!names.empty())
            add(packetOf(PacketInternedData, names, kNeedsState));
        names.clear();
    };
    for (std::size_t i = 0; i < labels().size(); ++i) {
        message.clear();
        addNumber(message, Iid, i + 1);
        addText(message, Name, labels()[i]);
        addBytes(names, EventNames, message);
        if (names.size() >= kNamesAtOnce)
            tellNames();
    }
    tellNames();
    std::set<std::uint32_t> told;
    for (std::uint32_t i = 0; i < tracks().size(); ++i) {
        const Track& track = tracks()[i];
        std::string its;
        if (track.group > 0 && told.insert(track.group).second) {
            message.clear();
            addNumber(message, ProcessPid, track.group);
            addText(message, ProcessName, groups()[track.group].empty() ? "trace" : groups()[track.group]);
            addNumber(its, Uuid, processTrack(track.group));
            addBytes(its, Process, message);
            add(packetOf(PacketTrackDescriptor, its, kNeedsState));
            its.clear();
        }
        addNumber(its, Uuid, i + 1);
        if (track.group > 0 && track.number > 0) {
            message.clear();
            addNumber(message, ThreadPid, track.group);
            addNumber(message, ThreadTid, track.number);
            addText(message, ThreadName, track.name);
            addBytes(its, Thread, message);
        } else {
            addText(its, TrackName, track.name);
            if (track.group > 0)
                addNumber(its, ParentUuid, processTrack(track.group));
            addNumber(its, SiblingMergeBehavior, kMergeNone);
        }
        if (track.form != Form::None && track.form != Form::Text) {
            message.clear();
            if (!track.unit.empty())
                addText(message, UnitName, track.unit);
            addBytes(its, Counter, message);
        }
        add(packetOf(PacketTrackDescriptor, its, kNeedsState));
    }
}

void CPerfettoWriter::write(const Fact& fact) {
    if (!fact.more.empty() || hasOwnName(fact)) [[unlikely]]
        return writeLong(fact);
    // Both messages are so short that one byte tells how long they are.
    static_assert(kMostPlain < 0x80);
    char* const packet = putVarint(room(kMostPlain), Packet << 3 | 2) + 1;
    char* const event = putHead(packet, fact.time) + 1;
    char* const end = putEvent(event, fact);
    packet[-1] = static_cast<char>(end - packet);
    event[-1] = static_cast<char>(end - event);
    ends(end);
}

void CPerfettoWriter::writeLong(const Fact& fact) {
    char bytes[kMostPlain];
    std::string event(bytes, putEvent(bytes, fact));
    if (fact.label == kNoLabel)
        addText(event, EventOwnName, fact.name);
    std::string annotation;
    eachField(fact, [&](const Field& field) {
        annotation.clear();
        addText(annotation, AnnotationName, field.name);
        if (field.form == Form::Text)
            addText(annotation, StringValue, field.text);
        else
            addNumber(annotation, field.form == Form::Signed ? IntValue : UintValue, field.number);
        addBytes(event, DebugAnnotations, annotation);
    });
    std::string packet(bytes, putHead(bytes, fact.time));
    addVarint(packet, event.size());
    packet += event;
    std::string framed;
    addBytes(framed, Packet, packet);
    add(framed);
}

} // namespace Quorvex
