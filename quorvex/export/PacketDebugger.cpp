#include "quorvex/export/PacketDebugger.h"

#include "quorvex/export/Digits.h"
#include "quorvex/export/ForwardAll.h"
#include "quorvex/format/Characters.h"
#include "quorvex/packets/Keywords.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string>
#include <string_view>

namespace Quorvex {

namespace {

constexpr std::string_view kUnknown = "unknown";

struct Label {
    std::string_view field;
    std::string_view text;
};

/// What the fields of layouts are called in words, sorted by field.
constexpr Label kLabels[] = {
    {"Addr", "Bus Address"},
    {"BranchTarget", "Branch Target"},
    {"Channel", "Channel"},
    {"CntrId", "Counter ID"},
    {"Data", "Data"},
    {"DataAddr", "Data Address"},
    {"Dim", "Counter Dim"},
    {"EvtId", "Event ID"},
    {"EvtType", "Event Type"},
    {"ExcId", "Exception ID"},
    {"FillBytes", "Fill Bytes"},
    {"FrameConfig", "Frame Configuration"},
    {"FrameLen", "Frame Length"},
    {"Frequency", "Frequency"},
    {"FuncId", "Function ID"},
    {"HWCtx", "Hardware Context"},
    {"IP", "Instruction Pointer"},
    {"Idx", "Counter Index"},
    {"Idx1", "Counter Index"},
    {"Idx2", "Counter Index"},
    {"Master", "Master"},
    {"Priority", "Message Level"},
    {"ProcId", "Process ID"},
    {"RelIP", "Relative Instruction Pointer"},
    {"RelTick", "Relative Tick"},
    {"SWCtx", "Software Context"},
    {"SignalId", "Signal ID"},
    {"SignalMask", "Signal Mask"},
    {"SignalValue", "Signal Value"},
    {"Signals", "Bus Access"},
    {"SourceState", "Source State ID"},
    {"SrcFuncId", "Source Function ID"},
    {"State", "State ID"},
    {"StateMachine", "State Machine ID"},
    {"StateMachineInstance", "State Machine Instance ID"},
    {"TargetState", "Target State ID"},
    {"TgtFuncId", "Target Function ID"},
    {"Tick", "Tick"},
    {"Timestamp", "Timestamp"},
    {"Transition", "Transition ID"},
    {"TypeId", "Type ID"},
    {"Value", "Counter Int Value"},
    {"VarId", "Variable ID"},
    {"VarSize", "Variable Size"},
    {"Version", "Version"},
};
static_assert(std::ranges::is_sorted(kLabels, {}, &Label::field));

std::string_view labelOf(std::string_view field) {
    const auto* row = std::ranges::lower_bound(kLabels, field, {}, &Label::field);
    return row != std::end(kLabels) && row->field == field ? row->text : field;
}

/// What the text of a packet is called, by TextSort.
constexpr std::string_view kTextLabels[] = {
    "Text",
    "Text",
    "Function Name",
    "Process Name",
    "Line",
    "Type Name",
    "Variable Name",
    "Expression",
    "Counter Name",
    "Counter Unit",
    "Event Name",
    "Signal Name",
    "State Machine Name",
    "State Machine Instance Name",
    "State Name",
    "Transition Name",
};
static_assert(std::size(kTextLabels) == std::size_t(TextSort::Transition) + 1);

std::string_view labelOfText(tagTCode code) {
    return kTextLabels[std::size_t(factsOf(code).text)];
}

template <class T> std::string decimal(T value) {
    char digits[32];
    return std::string(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

template <class T> std::string hex(T value) {
    return hexNumber(reinterpret_cast<const unsigned char*>(&value), sizeof value);
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        if (character.code == '"' || character.code == '\\')
            result += '\\';
        if (character.printable) {
            result += text.substr(0, character.size);
        } else {
            // Byte by byte in three octal digits, which no digit of the text can be taken for.
            for (const char byte : text.substr(0, character.size)) {
                const auto value = static_cast<unsigned char>(byte);
                result += {'\\', static_cast<char>('0' + (value >> 6)), static_cast<char>('0' + ((value >> 3) & 7)),
                           static_cast<char>('0' + (value & 7))};
            }
        }
        text.remove_prefix(character.size);
    }
    return result + '"';
}

} // namespace

/// Collects the lines of one packet.
class CPacketDebugger::Fields {
public:
    std::string lines;

    void add(std::string_view label, std::string_view value) {
        lines.append(label).append(":\t").append(value).append("\n");
    }

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* field, const T& value) {
        write(meaning, labelOf(field), value);
    }

private:
    template <class T> void write(FieldMeaning meaning, std::string_view label, T value) {
        static_assert(std::is_integral_v<T>);
        const FieldFacts& facts = factsOf(meaning);
        if (isUnknown(meaning, value))
            add(label, kUnknown);
        else if (facts.look == FieldLook::Address || facts.look == FieldLook::Hexadecimal)
            add(label, hex(value));
        else
            add(label, decimal(value));
    }
    void write(FieldMeaning, std::string_view label, EEventType type) {
        const char* name = CEventTypeInfo::EventTypeToName(type);
        add(label, hex(static_cast<std::uint32_t>(type)) + (name ? std::string(" ") + name : ""));
    }
    // Whether a counter holds an integer or a double is not recorded: both are told.
    void write(FieldMeaning, std::string_view label, const TCounter_t& value) {
        add(label, decimal(value.u64));
        add("Counter Dbl Value", decimal(value.dbl));
    }
    void write(FieldMeaning, std::string_view label, const TCounterIdx_t& index) { add(label, decimal(index.u64)); }
    void write(FieldMeaning, std::string_view label, const TVarCounter_t& value) {
        add(label, value.Length() == 0 ? "none" : decimalNumber(value.data(), value.Length()));
    }
    void write(FieldMeaning, std::string_view label, const CData& data) {
        add(label, data.Length() == 0 ? "none" : hexNumber(data.data(), data.Length()));
    }
    void write(FieldMeaning, std::string_view label, const CSignalMask& mask) {
        add(label, mask.empty() ? "none" : hexNumber(mask.data(), mask.size()));
    }
    void write(FieldMeaning, std::string_view label, const CBusDataSignals& signals) {
        add(label, hex(signals.GetRawFlags()) + " " + std::string(keywords::kBusAccesses[signals.GetRawFlags() & 3]));
    }
    void write(FieldMeaning, std::string_view label, const SFrameConfig& config) {
        add(label, hex(config.word()) + " " + std::string(keywords::kExpansions[config.getExpansion()]) + " " +
                       std::string(keywords::kExceptionFrames[config.getExceptionFrames()]));
    }
    void write(FieldMeaning, std::string_view label, const FillBytes& fill) {
        add(label, decimal(unsigned{fill.count}));
    }
};

CPacketDebugger::~CPacketDebugger() = default;

bool CPacketDebugger::put(std::uint64_t offset, CPacket& packet, std::uint64_t size) {
    m_stream << "Offset:\t" << hex(offset) << '\n';
    return print(packet, size);
}

bool CPacketDebugger::put(CPacket* packet) {
    return packet && print(*packet, kUnknown64);
}

bool CPacketDebugger::print(CPacket& packet, std::uint64_t size) {
    const tagTCode code = packet.TraceCode();
    if (code > 0xFF)
        return false;
    Fields fields;
    fields.lines.append(CTCodeInfo::TCodeToName(code)).append(" (").append(hex(static_cast<std::uint8_t>(code)));
    fields.lines.append("): ").append(CTCodeInfo::TCodeToDescription(code)).append("\n");
    const CCharStringSequence* text = dynamic_cast<const CCharStringSequence*>(&packet);
    visitKind(packet, [&](const auto& kind) {
        kind.visitParts(fields);
        text = kind.text();
    });
    if (text)
        fields.add(labelOfText(code), quoted(text->view()));
    else if (const auto* string = dynamic_cast<const CCharString*>(&packet))
        fields.add(labelOfText(code), quoted({reinterpret_cast<const char*>(string->data()), string->Length()}));
    if (m_withBytes) {
        std::string bytes(packet.StreamSize(), '\0');
        const std::size_t written = packet.write(bytes.data(), static_cast<unsigned>(bytes.size()));
        bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(written, size)));
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            char digits[2];
            putHex(digits, static_cast<unsigned char>(bytes[at]), 2);
            fields.lines += at == 0 ? "Bytes:\t" : at % 16 == 0 ? "\n\t" : " ";
            fields.lines.append(digits, sizeof digits);
        }
        fields.lines += '\n';
    }
    m_stream << fields.lines << '\n';
    return m_stream.good();
}

bool CPacketDebugger::forward(CPacket*& packet) {
    return put(packet) && CPacketFactory::releaseCPacket(&packet);
}

bool CPacketDebugger::forward(std::list<CPacket*>& packets) {
    return forwardAll(*this, packets);
}

} // namespace Quorvex
