#include "Arguments.h"
#include "Output.h"
#include "Print.h"
#include "TableFormat.h"
#include "TraceInput.h"
#include "Verbs.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Exception.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"

#include <fmt/format.h>

#include <concepts>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace qvx {

namespace {

struct KindsOptions {
    TableFormat format = TableFormat::Plain;
    Output output;
};

using namespace Quorvex;

template <class Context> constexpr const char* kContext = nullptr;
template <> constexpr const char* kContext<CCoreContext> = "core";
template <> constexpr const char* kContext<CBusContext> = "bus";
template <> constexpr const char* kContext<CSystemContext> = "system";
template <> constexpr const char* kContext<CRelCoreContext> = "relative core";
template <> constexpr const char* kContext<CRelBusContext> = "relative bus";
template <> constexpr const char* kContext<CRelSystemContext> = "relative system";

/// What sort of value a field holds, by its name.
class FieldTypes {
public:
    std::map<std::string, std::string_view, std::less<>> types{{"Msg", "text"}}; // CharString is not made of parts

    template <class Part> void operator()(const Part& part) { Part::fields(part, *this); }
    template <class T> void operator()(FieldMeaning meaning, const char* name, const T&) {
        types[name] = typeOf<T>(meaning);
    }

private:
    template <class T> static std::string_view typeOf(FieldMeaning meaning) {
        if constexpr (std::same_as<T, CSignalMask>)
            return "mask";
        else if constexpr (std::same_as<T, FillBytes>)
            return "padding";
        else if constexpr (std::same_as<T, CBusDataSignals>)
            return "access";
        else if constexpr (std::same_as<T, SFrameConfig>)
            return "configuration";
        else
            return factsOf(meaning).type;
    }
};

/// The payload lengths of a kind, found by asking the library for packets.
struct Lengths {
    std::vector<unsigned> fitting; ///< every byte belongs to a field
    bool longer = false;           ///< those of other lengths are taken when the fields are there

    Lengths(tagTCode kind, FieldTypes& types) {
        const char zeros[UINT8_MAX] = {};
        for (unsigned length = 0; length <= UINT8_MAX; ++length) {
            const CPacketHeader header(kind, static_cast<std::uint8_t>(length));
            unsigned taken = 0;
            try {
                const PacketPointer packet(CPacketFactory::getCPacket(header, zeros, length, taken));
                visitKind(*packet, [&types](const auto& its) { its.visitParts(types); });
            } catch (const CQVXException&) {
                continue;
            }
            if (taken == length)
                fitting.push_back(length);
            else
                longer = true;
        }
    }

    /// As rows of first, last and step.
    std::string json() const {
        std::string rows;
        for (std::size_t at = 0, next; at < fitting.size(); at = next) {
            next = at + 1;
            const unsigned step = next < fitting.size() ? fitting[next] - fitting[at] : 1;
            while (next < fitting.size() && fitting[next] - fitting[next - 1] == step)
                ++next;
            rows += fmt::format("{}[{}, {}, {}]", rows.empty() ? "" : ", ", fitting[at], fitting[next - 1], step);
        }
        return rows;
    }
};

void writeJson(std::ostream& out) {
    FieldTypes types;
    std::map<unsigned, Lengths> lengths;
    for (unsigned code = 0; code < 256; ++code) {
        if (PacketPointer(CPacketFactory::getCPacket(tagTCode(code))))
            lengths.emplace(code, Lengths(tagTCode(code), types));
    }
    const auto range = [](std::pair<unsigned, unsigned> of) {
        return of.first == of.second ? std::to_string(of.first) : fmt::format("[{}, {}]", of.first, of.second);
    };

    for (const auto& [code, its] : lengths) {
        const auto kind = tagTCode(code);
        std::string context = "null";
        visitKind(*PacketPointer(CPacketFactory::getCPacket(kind)), [&context](const auto& packet) {
            if (const char* name = kContext<typename std::remove_cvref_t<decltype(packet)>::Context>)
                context = fmt::format("\"{}\"", name);
        });
        std::string fields;
        for (const LayoutField& field : Layout::of(kind).fields) {
            fields += fmt::format("{}{{\"name\": \"{}\", \"type\": \"{}\", \"size\": {}", fields.empty() ? "" : ", ",
                                  field.name, types.types[field.name], range(field.size));
            if (field.count != std::pair{1U, 1U})
                fields += fmt::format(", \"count\": {}", range(field.count));
            fields += "}";
        }
        qvx::print(out,
                   "{{\"code\": {}, \"name\": \"{}\", \"description\": \"{}\", \"context\": {}, \"text\": {}, "
                   "\"lengths\": [{}], \"longer\": {}, \"fields\": [{}]}}\n",
                   code, CTCodeInfo::TCodeToName(kind), CTCodeInfo::TCodeToDescription(kind), context,
                   isFollowedByText(kind), its.json(), its.longer, fields);
    }
}

void writeTable(TableFormat format, std::ostream& out) {
    const auto table = makeTable(format, out, false);
    // The plain form is for reading on the terminal: it has the codes too, and no page around it.
    const bool isPage = format != TableFormat::Plain;
    if (isPage)
        table->writePageHeader(nullptr);
    else
        out << "Code";
    table->writeTableHeader();
    for (unsigned code = 0; code < 256; ++code) {
        const auto kind = tagTCode(code);
        if (!PacketPointer(CPacketFactory::getCPacket(kind)))
            continue;
        if (!isPage)
            qvx::print(out, "0x{:02x}", code);
        table->writeCPacket(kind);
    }
    if (isPage) {
        table->writeTableFooter();
        table->writePageFooter();
    }
}

ExitCode kinds(KindsOptions& options) {
    options.output.check({});
    std::ostream& out = options.output.target().open();
    if (options.format == TableFormat::JSON)
        writeJson(out);
    else
        writeTable(options.format, out);
    options.output.target().commit();
    return Done;
}

} // namespace

void addKinds(Program& program) {
    auto options = std::make_shared<KindsOptions>();
    Verb verb = program.add("kinds", "Show the format of every kind of packet");
    addFormatOption(verb, options->format, false);
    options->output.addOptions(verb);
    verb.footer(
        "Example: qvx kinds\n"
        "Behind each field stands its size in bytes, smallest:largest where it varies, and in braces how often\n"
        "it occurs. json tells the same to programs that read traces, a kind a line, with its payload lengths.");
    verb.runs([options] { return kinds(*options); }, false);
}

} // namespace qvx
