// Whatever a trace holds, the VCD and the BTF file made of it are legal, as others than their writers see it.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/export/BtfWriter.h"
#include "quorvex/export/VCDWriter.h"
#include "tests/support/BtfChecker.h"
#include "tests/support/VcdFile.h"

#include <exception>
#include <sstream>

namespace Quorvex::fuzz {

namespace {

template <class Writer> std::string written(const std::string& trace) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::ostringstream out;
    Writer writer(out);
    bool good = true;
    for (unsigned count = 0; const PacketPointer packet{good ? reader.get() : nullptr}; ++count) {
        // As if they were of some traces that begin and end.
        writer.setProcess(count / 16 % 3);
        good = writer.put(packet.get());
        if (count % 64 == 63)
            writer.endProcess(count / 16 % 3);
    }
    writer.flush();
    require(writer.written(), "the file is written");
    return out.str();
}

} // namespace

void viewers(const std::string& data) {
    try {
        VcdFile(written<CVCDWriter>(data));
    } catch (const std::exception& exception) {
        require(false, exception.what());
    }
    const std::vector<std::string> complaints = checkBtf(written<CBtfWriter>(data));
    require(complaints.empty(), complaints.empty() ? "" : complaints.front().c_str());
}

} // namespace Quorvex::fuzz
