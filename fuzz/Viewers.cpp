// Whatever a trace holds, all formats of viewers can be written, and the VCD and the BTF file made of it are legal, as
// others than their writers see it.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/export/ViewerFormats.h"
#include "tests/support/BtfChecker.h"
#include "tests/support/VcdFile.h"

#include <exception>
#include <sstream>

namespace Quorvex::fuzz {

namespace {

std::string written(const ViewerFormat& format, const std::string& trace) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::ostringstream out;
    const auto writer = format.make(out, {});
    bool good = true;
    for (unsigned count = 0; const PacketPointer packet{good ? reader.get() : nullptr}; ++count) {
        // As if they were of some traces that begin and end.
        writer->setProcess(count / 16 % 3);
        good = writer->put(packet.get());
        if (count % 64 == 63)
            writer->endProcess(count / 16 % 3);
    }
    writer->flush();
    require(writer->written(), "the file is written");
    return out.str();
}

} // namespace

void viewers(const std::string& data) {
    for (const ViewerFormat& format : viewerFormats()) {
        const std::string file = written(format, data);
        try {
            if (format.name == "vcd")
                VcdFile{file};
        } catch (const std::exception& exception) {
            require(false, exception.what());
        }
        const std::vector<std::string> complaints = format.name == "btf" ? checkBtf(file) : std::vector<std::string>();
        require(complaints.empty(), complaints.empty() ? "" : complaints.front().c_str());
    }
}

} // namespace Quorvex::fuzz
