#include "quorvex/export/PacketDebugger.h"

#include "quorvex/export/ForwardAll.h"
#include "quorvex/format/Characters.h"
#include "quorvex/format/Digits.h"
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

void appendQuoted(std::string& to, std::string_view text) {
    to += '"';
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        if (character.code == '"' || character.code == '\\')
            to += '\\';
        if (character.printable) {
            to += text.substr(0, character.size);
        } else {
            // Byte by byte in three octal digits, which no digit of the text can be taken for.
            for (const char byte : text.substr(0, character.size)) {
                const auto value = static_cast<unsigned char>(byte);
                to += {'\\', static_cast<char>('0' + (value >> 6)), static_cast<char>('0' + ((value >> 3) & 7)),
                       static_cast<char>('0' + (value & 7))};
            }
        }
        text.remove_prefix(character.size);
    }
    to += '"';
}

} // namespace

/// Appends the lines of one packet.
class CPacketDebugger::Fields {
public:
    explicit Fields(CPacketDebugger& printer) : m_printer(printer), m_lines(printer.m_text) {}

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* field, const T& value) {
        add(m_printer.m_labels.of(field), [&] { write(meaning, value); });
    }
    void text(std::string_view label, std::string_view text) {
        add(label, [&] { appendQuoted(m_lines, text); });
    }
    template <class T> void hex(T value) {
        char text[2 + 2 * sizeof value];
        m_lines.append(text, putHexValue(text, value));
    }

private:
    template <class Write> void add(std::string_view label, Write write) {
        m_lines.append(label).append(":\t");
        write();
        m_lines += '\n';
    }

    template <class T> void decimal(T value) {
        char text[32];
        m_lines.append(text, std::to_chars(text, std::end(text), value).ptr);
    }

    template <class T> void write(FieldMeaning meaning, T value) {
        static_assert(std::is_integral_v<T>);
        const FieldFacts& facts = factsOf(meaning);
        if (isUnknown(meaning, value))
            m_lines += kUnknown;
        else if (facts.look == FieldLook::Address || facts.look == FieldLook::Hexadecimal)
            hex(value);
        else
            decimal(value);
    }
    void write(FieldMeaning, EEventType type) {
        hex(static_cast<std::uint32_t>(type));
        if (const char* name = CEventTypeInfo::EventTypeToName(type))
            m_lines.append(" ").append(name);
    }
    // Whether a counter holds an integer or a double is not recorded: both are told.
    void write(FieldMeaning, const TCounter_t& value) {
        decimal(value.u64);
        m_lines += "\nCounter Dbl Value:\t";
        decimal(value.dbl);
    }
    void write(FieldMeaning, const TCounterIdx_t& index) { decimal(index.u64); }
    void write(FieldMeaning, const TVarCounter_t& value) {
        m_lines += value.Length() == 0 ? "none" : decimalNumber(value.data(), value.Length());
    }
    void write(FieldMeaning, const CData& data) {
        m_lines += data.Length() == 0 ? "none" : hexNumber(data.data(), data.Length());
    }
    void write(FieldMeaning, const CSignalMask& mask) {
        m_lines += mask.empty() ? "none" : hexNumber(mask.data(), mask.size());
    }
    void write(FieldMeaning, const CBusDataSignals& signals) {
        hex(signals.GetRawFlags());
        m_lines.append(" ").append(keywords::kBusAccesses[signals.GetRawFlags() & 3]);
    }
    void write(FieldMeaning, const SFrameConfig& config) {
        hex(config.word());
        m_lines.append(" ").append(keywords::kExpansions[config.getExpansion()]);
        m_lines.append(" ").append(keywords::kExceptionFrames[config.getExceptionFrames()]);
    }
    void write(FieldMeaning, const FillBytes& fill) { decimal(unsigned{fill.count}); }

    CPacketDebugger& m_printer;
    std::string& m_lines;
};

std::string_view CPacketDebugger::Labels::of(const char* field) {
    Label& label = m_labels[reinterpret_cast<std::uintptr_t>(field) % std::size(m_labels)];
    if (label.field != field)
        label = {field, labelOf(field)};
    return label.text;
}

CPacketDebugger::~CPacketDebugger() = default;

bool CPacketDebugger::put(std::uint64_t offset, CPacket& packet, std::uint64_t size) {
    m_text = "Offset:\t";
    Fields(*this).hex(offset);
    m_text += '\n';
    return print(packet, size);
}

bool CPacketDebugger::put(CPacket* packet) {
    m_text.clear();
    return packet && print(*packet, kUnknown64);
}

bool CPacketDebugger::print(CPacket& packet, std::uint64_t size) {
    const bool isShown = describe(packet, size);
    m_stream.write(m_text.data(), static_cast<std::streamsize>(m_text.size()));
    return isShown && m_stream.good();
}

bool CPacketDebugger::describe(CPacket& packet, std::uint64_t size) {
    const tagTCode code = packet.TraceCode();
    if (code > 0xFF)
        return false;
    Fields fields(*this);
    m_text.append(CTCodeInfo::TCodeToName(code)).append(" (");
    fields.hex(static_cast<std::uint8_t>(code));
    m_text.append("): ").append(CTCodeInfo::TCodeToDescription(code)).append("\n");
    if (code == CharString) {
        if (const auto* sequence = dynamic_cast<const CCharStringSequence*>(&packet))
            fields.text(labelOfText(code), sequence->view());
        else if (const auto* string = dynamic_cast<const CCharString*>(&packet))
            fields.text(labelOfText(code), {reinterpret_cast<const char*>(string->data()), string->Length()});
    }
    visitKind(packet, [&](const auto& kind) {
        kind.visitParts(fields);
        if (const CCharStringSequence* text = kind.text())
            fields.text(labelOfText(code), text->view());
    });
    if (m_withBytes) {
        std::string bytes(packet.StreamSize(), '\0');
        const std::size_t written = packet.write(bytes.data(), static_cast<unsigned>(bytes.size()));
        bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(written, size)));
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            char digits[2];
            putHex<2>(digits, static_cast<unsigned char>(bytes[at]));
            m_text += at == 0 ? "Bytes:\t" : at % 16 == 0 ? "\n\t" : " ";
            m_text.append(digits, sizeof digits);
        }
        m_text += '\n';
    }
    m_text += '\n';
    return true;
}

bool CPacketDebugger::forward(CPacket*& packet) {
    return put(packet) && CPacketFactory::releaseCPacket(&packet);
}

bool CPacketDebugger::forward(std::list<CPacket*>& packets) {
    return forwardAll(*this, packets);
}

} // namespace Quorvex
