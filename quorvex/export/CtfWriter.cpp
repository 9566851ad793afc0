#include "quorvex/export/CtfWriter.h"

#include "quorvex/format/Characters.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/LittleEndian.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <type_traits>
#include <utility>

namespace Quorvex {

namespace {

constexpr std::size_t kPacketSize = 0x40000;
constexpr std::uint32_t kMagic = 0xC1FC1FC1;
/// Header and context of a packet: magic, both times, both sizes, number.
constexpr std::size_t kHeadSize = 4 + 5 * 8;
/// What an event takes beside its text, at most: a payload has 255 bytes, with few counts between.
constexpr std::size_t kMostFields = 0x200;
constexpr std::string_view kRepeated = "Idx"; ///< the field of which a packet may have several
constexpr std::string_view kReplacement = "\xef\xbf\xbd";

/// What identifiers refer to that have a name of their own, and what the metadata calls their type.
using Named = std::pair<TextSort, const char*>;
constexpr Named kNamed[] = {
    {TextSort::Function, "function_t"}, {TextSort::Process, "process_t"},      {TextSort::Type, "type_t"},
    {TextSort::Variable, "variable_t"}, {TextSort::Counter, "counter_t"},      {TextSort::Event, "event_t"},
    {TextSort::Signal, "signal_t"},     {TextSort::StateMachine, "machine_t"},
};

/// A text without what a text of the format cannot hold.
std::string cleaned(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        const bool isBad = character.code == 0 || (character.size == 1 && character.code >= 0x80);
        result += isBad ? kReplacement : text.substr(0, character.size);
        text.remove_prefix(character.size);
    }
    return result;
}

/// A text as it stands in metadata.
std::string literal(std::string_view text) {
    std::string result = "\"";
    for (const char c : cleaned(text)) {
        if (c == '"' || c == '\\')
            result += '\\';
        if (static_cast<unsigned char>(c) >= ' ' && c != '\x7f') {
            result += c;
        } else {
            const auto code = static_cast<unsigned char>(c);
            result += {'\\', static_cast<char>('0' + code / 64), static_cast<char>('0' + code / 8 % 8),
                       static_cast<char>('0' + code % 8)};
        }
    }
    return result + "\"";
}

} // namespace

/// Puts the fields of a packet, and may tell how they are declared.
class CCtfWriter::Fields {
public:
    explicit Fields(CCtfWriter& writer) : m_writer(writer) {}

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* name, const T& value) {
        if (meaning == FieldMeaning::Tick)
            return; // the time of the event
        if constexpr (std::is_integral_v<T> || std::is_enum_v<T>)
            number(meaning, name, value);
        else if constexpr (requires { value.data() + value.Length(); })
            bytes(name, value.data(), value.Length());
        else if constexpr (requires { value.data() + value.size(); })
            bytes(name, value.data(), value.size());
        else if constexpr (requires { value.u64; })
            word(name, value.u64);
        else {
            char wire[UINT8_MAX + 1];
            FieldCodec<T>::encode(value, wire);
            if constexpr (FieldCodec<T>::kFixed == 1)
                number(meaning, name, static_cast<std::uint8_t>(wire[0]));
            else
                bytes(name, wire, FieldCodec<T>::size(value));
        }
    }
    void text(std::string_view text) {
        const std::string its = cleaned(text);
        m_writer.append(its.c_str(), its.size() + 1);
        declare("string", "text");
    }

    /// How many fields there were: packets of one kind with as many have the same.
    unsigned count() const { return m_count; }
    /// From now on fields are declared too.
    void declareTo(std::string& to) { m_declared = &to; }

private:
    template <class T> void number(FieldMeaning meaning, const char* name, T value) {
        const char* type = nullptr;
        if constexpr (std::is_same_v<T, std::uint32_t>) {
            if (meaning == FieldMeaning::Id) {
                const Named& its = namedBy(name);
                type = its.second;
                if (type && value != CFunctionEnter::kNoFunction)
                    value = m_writer.numberOf(its.first, value);
            }
        }
        m_writer.append(value);
        static constexpr const char* kTypes[] = {"uint8_t", "uint16_t", "uint32_t", "uint64_t"};
        static constexpr const char* kHex[] = {"hex8_t", "hex16_t", "hex32_t", "hex64_t"};
        constexpr unsigned kSize = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
        const FieldLook look = factsOf(meaning).look;
        const bool isHex = look == FieldLook::Hexadecimal || look == FieldLook::Address;
        declare(type ? type : std::is_signed_v<T> ? "int8_t" : isHex ? kHex[kSize] : kTypes[kSize], name);
        static_assert(!std::is_signed_v<T> || sizeof(T) == 1 || std::is_enum_v<T>);
    }
    void word(const char* name, std::uint64_t value) {
        const bool isRepeated = name == kRepeated;
        if (isRepeated && !m_repeated) {
            m_repeated = m_writer.m_size;
            m_writer.append(std::uint8_t{0});
            declareRow("uint64_t", name, "_count");
        } else if (!isRepeated) {
            declare("uint64_t", name);
        }
        if (isRepeated)
            ++m_writer.m_packet[*m_repeated];
        m_writer.append(value);
    }
    void bytes(const char* name, const void* from, std::size_t count) {
        m_writer.append(static_cast<std::uint8_t>(count));
        m_writer.append(static_cast<const char*>(from), count);
        declareRow("hex8_t", name, "_size");
    }
    const Named& namedBy(const char* field) {
        return m_writer.m_named.findOrMake(reinterpret_cast<std::uintptr_t>(field), [field]() -> Named {
            const Reference* reference = referenceOf(field);
            const auto* row = std::ranges::find(kNamed, reference ? reference->sort : TextSort::None, &Named::first);
            return row != std::end(kNamed) ? *row : Named(TextSort::None, nullptr);
        });
    }
    /// Readers strip the underscore, which keeps names from being words of the metadata.
    void declare(const char* type, const char* name) {
        ++m_count;
        if (!m_declared)
            return;
        const bool isThread = name == std::string_view("SWCtx");
        m_declared->append(" ").append(isThread ? "thread_t" : type).append(" _").append(name).append(";");
    }
    /// A row of values behind their count.
    void declareRow(const char* type, const char* name, const char* ending) {
        ++m_count;
        if (m_declared)
            m_declared->append(" uint8_t _")
                .append(name)
                .append(ending)
                .append("; ")
                .append(type)
                .append(" _")
                .append(name)
                .append("[_")
                .append(name)
                .append(ending)
                .append("];");
    }

    CCtfWriter& m_writer;
    unsigned m_count = 0;
    std::optional<std::size_t> m_repeated; ///< where the count of repeated fields stands
    std::string* m_declared = nullptr;
};

CCtfWriter::CCtfWriter(std::ostream& out, ViewerOptions options)
    : CViewerWriter(out,
                    {TextSort::Function, TextSort::Process, TextSort::Type, TextSort::Variable, TextSort::Counter,
                     TextSort::CounterUnit, TextSort::Event, TextSort::Signal, TextSort::StateMachine,
                     TextSort::StateMachineInstance, TextSort::State, TextSort::Transition},
                    std::move(options)) {}

CCtfWriter::~CCtfWriter() = default;

template <class T> void CCtfWriter::append(T value) {
    storeLittleEndian(m_packet.data() + m_size, value);
    m_size += sizeof value;
}

void CCtfWriter::append(const char* bytes, std::size_t count) {
    if (count > 0)
        std::memcpy(m_packet.data() + m_size, bytes, count);
    m_size += count;
}

void CCtfWriter::endPacket() {
    const std::size_t size = std::exchange(m_size, 0);
    const std::uint64_t bits = std::uint64_t{8} * size;
    append(kMagic);
    for (const std::uint64_t value : {m_begin, m_end, bits, bits, m_packets++})
        append(value);
    m_isWritten = m_isWritten && writeOut({m_packet.data(), size});
    m_size = 0;
}

bool CCtfWriter::show(const CPacket& packet, std::uint64_t time) {
    const tagTCode kind = packet.TraceCode();
    const bool isText = kind == CharString;
    if (factsOf(kind).role == Role::Structure || (isText && packet.Length() == 0))
        return false;
    const std::string_view text = wholeTextOf(packet);
    if (m_size >= kPacketSize)
        endPacket();
    // The first event of a class is put twice.
    const std::size_t most = kHeadSize + 2 * (kMostFields + kReplacement.size() * text.size());
    if (m_packet.size() < m_size + most)
        m_packet.resize(kPacketSize + 2 * most);
    if (m_size == 0) {
        m_begin = time;
        m_size = kHeadSize;
    }
    m_end = time;
    const std::size_t start = m_size;
    append(std::uint16_t{0});
    append(time);
    const auto fill = [&](Fields& fields) {
        visitKind(packet, [&fields](const auto& its) { its.visitParts(fields); });
        if (isText || isFollowedByText(kind))
            fields.text(text);
    };
    Fields fields(*this);
    fill(fields);
    const std::uint16_t id = m_ids.findOrMake(kind << 8 | fields.count(), [&] {
        EventClass added{kind, ""};
        const std::size_t size = m_size;
        Fields again(*this);
        again.declareTo(added.fields);
        fill(again);
        m_size = size;
        m_classes.push_back(std::move(added));
        return static_cast<std::uint16_t>(m_classes.size() - 1);
    });
    storeLittleEndian(m_packet.data() + start, id);
    return true;
}

void CCtfWriter::end(std::uint64_t time) {
    m_end = time;
    if (m_size > 0)
        endPacket();
}

std::string CCtfWriter::metadata() const {
    std::string text = "/* CTF 1.8 */\n";
    const auto integer = [&](unsigned size, const char* more, const std::string& name) {
        text += "typealias integer { size = " + std::to_string(size) + "; align = 8; " + more + " } := " + name + ";\n";
    };
    integer(8, "signed = true;", "int8_t");
    for (const unsigned size : {8U, 16U, 32U, 64U}) {
        integer(size, "signed = false;", "uint" + std::to_string(size) + "_t");
        integer(size, "signed = false; base = 16;", "hex" + std::to_string(size) + "_t");
    }
    text += "trace { major = 1; minor = 8; byte_order = le; packet.header := struct { uint32_t magic; }; };\n";
    text += "env { tracer_name = \"quorvex\"; inputs = " + literal(options().inputs) + "; first_tick = \"" +
            (startTick() == kUnknown64 ? "unknown" : std::to_string(startTick())) + "\"; ticks_per_second = \"" +
            (frequency() == 0 ? "unknown" : std::to_string(frequency())) + "\"; };\n";
    text += "clock { name = ticks; freq = " + std::to_string(frequency() == 0 ? 1'000'000'000 : frequency()) + "; };\n";
    integer(64, "signed = false; map = clock.ticks.value;", "tick_t");
    for (const auto& [sort, name] : kNamed) {
        std::string labels;
        for (const auto& [key, its] : names().all()) {
            if (key.first == sort && !its.text.empty())
                labels += (labels.empty() ? " " : ", ") + literal(its.text) + " = " + std::to_string(key.second);
        }
        if (labels.empty())
            integer(32, "signed = false; base = 16;", name);
        else
            text += "typealias enum : hex32_t {" + labels + " } := " + name + ";\n";
    }
    std::string threads;
    for (const std::uint32_t thread : names().threads()) {
        if (const std::string title = names().threadTitle(thread); !title.empty())
            threads += (threads.empty() ? " " : ", ") + literal(title) + " = " + std::to_string(thread);
    }
    if (threads.empty())
        integer(32, "signed = false;", "thread_t");
    else
        text += "typealias enum : uint32_t {" + threads + " } := thread_t;\n";
    text +=
        "stream {\n\tpacket.context := struct { tick_t timestamp_begin; tick_t timestamp_end; uint64_t content_size; "
        "uint64_t packet_size; uint64_t packet_seq_num; };\n"
        "\tevent.header := struct { uint16_t id; tick_t timestamp; };\n};\n";
    for (std::size_t id = 0; id < m_classes.size(); ++id) {
        text += std::string("event { name = \"") + CTCodeInfo::TCodeToName(m_classes[id].kind) +
                "\"; id = " + std::to_string(id) + "; fields := struct {" + m_classes[id].fields + " }; };\n";
    }
    return text;
}

} // namespace Quorvex
