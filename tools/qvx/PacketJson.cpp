#include "PacketJson.h"

#include "Json.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

namespace qvx {

using namespace Quorvex;

namespace {

/// Fields that stand under common names, of whatever kind they are.
struct Common {
    std::string_view field;
    const char* name; ///< null: told in another way
};
constexpr Common kCommon[] = {{"Tick", nullptr}, {"Timestamp", nullptr}, {"Msg", nullptr},
                              {"HWCtx", "core"}, {"SWCtx", "thread"},    {"IP", "address"}};

constexpr std::size_t kThread = 4;
static_assert(kCommon[kThread].field == "SWCtx");

constexpr std::string_view kRepeated = "Idx"; ///< the field of which a packet may have several

void addTime(JsonLine& line, std::uint64_t tick, const TraceSpan& span) {
    if (tick == kUnknown64 || span.frequency == 0 || span.first == kUnknown64) {
        line.addUnknown("time_ns");
        return;
    }
    const bool isBefore = tick < span.first;
    const std::uint64_t distance = isBefore ? span.first - tick : tick - span.first;
    const std::uint64_t time = TimeBase::nanosecondsOf(distance, span.frequency);
    if (isBefore && time > std::uint64_t{1} << 63)
        line.addUnknown("time_ns"); // no number of 64 bits
    else if (isBefore)
        line.addSigned("time_ns", static_cast<std::int64_t>(0 - time));
    else
        line.add("time_ns", time);
}

void addNumber(JsonLine& line, const char* name, const NumberField& field) {
    if (field.meaning == FieldMeaning::Bytes || field.bytes.size() > sizeof field.value)
        line.add(name, hexNumber(field.bytes));
    else if (!field.isKnown)
        line.addUnknown(name);
    else if (field.isSigned)
        line.addSigned(name, static_cast<std::int64_t>(field.value));
    else
        line.add(name, field.value);
}

} // namespace

void PacketJson::pass(std::size_t file, const CTraceCursor& packet) {
    if (packet.TraceCode() == Message)
        m_names.noteMessage(packet.text(), static_cast<unsigned>(file));
    else if (factsOf(packet.TraceCode()).role == Role::Definition)
        m_names.note(*PacketPointer(packet.packet()), static_cast<unsigned>(file));
}

void PacketJson::pass(std::size_t file, const CPacket& packet, std::uint64_t) {
    m_names.note(packet, static_cast<unsigned>(file));
}

void addPacket(JsonLine& line, const CPacket& packet, std::uint64_t tick, const TraceSpan& span, CTraceNames& names,
               unsigned process) {
    line.add("kind", CTCodeInfo::TCodeToName(packet.TraceCode()));
    if (tick == kUnknown64)
        line.addUnknown("tick");
    else
        line.add("tick", tick);
    std::array<NumberField, std::size(kCommon)> common{};
    JsonLine others;
    std::optional<std::vector<std::uint64_t>> repeated;
    eachNumber(packet, [&](const NumberField& field) {
        const auto its = std::ranges::find(kCommon, std::string_view(field.name), &Common::field);
        if (its != std::end(kCommon)) {
            common[static_cast<std::size_t>(its - kCommon)] = field; // numbers all
        } else if (field.name != kRepeated) {
            addNumber(others, field.name, field);
        } else {
            if (!repeated)
                repeated.emplace();
            repeated->push_back(field.value);
        }
    });
    for (std::size_t i = 0; i < common.size(); ++i) {
        if (kCommon[i].name && common[i].name)
            addNumber(line, kCommon[i].name, common[i]);
        else if (kCommon[i].name)
            line.addUnknown(kCommon[i].name);
    }
    addTime(line, tick, span);
    line.addAll(others);
    if (repeated)
        line.add(kRepeated, *repeated);
    if (const auto subject = subjectOf(packet); subject && subject->sort != TextSort::None) {
        const std::string& name = names.name(subject->sort, names.numberOf(subject->sort, subject->id, process));
        if (!name.empty())
            line.add("name", name);
    }
    if (const NumberField& thread = common[kThread]; thread.name && thread.isKnown) {
        const std::string& name = names.threadName(static_cast<std::uint32_t>(thread.value), process);
        if (!name.empty())
            line.add("thread_name", name);
    }
    if (const std::string_view text = wholeTextOf(packet); !text.empty())
        line.add("text", text);
}

std::string PacketJson::line(const Timeline& from, const CPacket& packet, const TraceSpan& span) {
    const auto process = static_cast<unsigned>(from.file());
    m_names.note(packet, process);
    JsonLine line;
    if (m_files.size() > 1)
        line.add("file", m_files[from.file()]);
    line.add("offset", from.offset());
    addPacket(line, packet, from.tick(), span, m_names, process);
    return line.text();
}

} // namespace qvx
