#include "quorvex/export/ViewerFormats.h"

#include "quorvex/analysis/TraceFile.h"
#include "quorvex/export/BtfWriter.h"
#include "quorvex/export/ChromeWriter.h"
#include "quorvex/export/CtfWriter.h"
#include "quorvex/export/FactWriter.h"
#include "quorvex/export/FoldedWriter.h"
#include "quorvex/export/PerfettoWriter.h"
#include "quorvex/export/SpeedscopeWriter.h"
#include "quorvex/export/VCDWriter.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <sstream>

namespace Quorvex {

namespace {

template <class Writer> std::unique_ptr<CViewerWriter> make(std::ostream& out, const ViewerOptions& options) {
    return std::make_unique<Writer>(out, options);
}

} // namespace

const std::vector<ViewerFormat>& viewerFormats() {
    static const std::vector<ViewerFormat> kFormats{
        {"vcd", "value change dump", {".vcd"}, make<CVCDWriter>},
        {"btf", "best trace format", {".btf"}, make<CBtfWriter>},
        {"perfetto", "Perfetto's protobuf", {".pftrace", ".perfetto-trace"}, make<CPerfettoWriter>},
        {"chrome", "Trace Event JSON", {".trace.json"}, make<CChromeWriter>},
        {"speedscope", "speedscope JSON", {".speedscope.json"}, make<CSpeedscopeWriter>},
        {"ctf",
         "Common Trace Format 1.8, a directory",
         {".ctf"},
         make<CCtfWriter>,
         [](const CViewerWriter& writer) { return dynamic_cast<const CCtfWriter&>(writer).metadata(); }},
        {"folded", "folded stacks for flame graphs", {".folded"}, make<CFoldedWriter>},
        {"csv", "calls, events and values as a table", {".csv"}, make<CCsvWriter>},
        {"json", "the same as lines of JSON", {".jsonl", ".ndjson"}, make<CJsonWriter>},
    };
    return kFormats;
}

const ViewerFormat* viewerFormatOf(std::string_view file) {
    while (file.ends_with('/')) // a directory
        file.remove_suffix(1);
    for (const ViewerFormat& format : viewerFormats()) {
        if (std::ranges::any_of(format.endings, [&](std::string_view ending) { return file.ends_with(ending); }))
            return &format;
    }
    return nullptr;
}

std::vector<tagTCode> ViewerFormat::shownKinds() const {
    std::vector<tagTCode> kinds;
    for (unsigned code = 0; code < kKindFacts.size(); ++code) {
        const auto kind = tagTCode(code);
        const KindFacts& facts = factsOf(kind);
        if (!facts.hasClass || facts.isRelative || (facts.role != Role::Happening && facts.role != Role::Definition))
            continue;
        std::ostringstream out;
        const auto writer = make(out, {});
        CCharString text("text");
        const PacketPointer packet(CPacketFactory::getCPacket(kind));
        writer->putAbsolute(kind == CharString ? static_cast<const CPacket&>(text) : *packet, 0);
        if (!writer->losses().contains(CViewerWriter::wordsFor(kind)))
            kinds.push_back(kind);
    }
    return kinds;
}

} // namespace Quorvex
