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
    test::MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::ostringstream out;
    Writer writer(out);
    bool good = true;
    while (const PacketPointer packet{good ? reader.get() : nullptr})
        good = writer.put(packet.get());
    writer.flush();
    require(writer.written(), "the file is written");
    return out.str();
}

} // namespace

void viewers(const std::uint8_t* data, std::size_t size) {
    const std::string trace(reinterpret_cast<const char*>(data), size);
    try {
        test::VcdFile(written<CVCDWriter>(trace));
    } catch (const std::exception& exception) {
        require(false, exception.what());
    }
    const std::vector<std::string> complaints = test::checkBtf(written<CBtfWriter>(trace));
    require(complaints.empty(), complaints.empty() ? "" : complaints.front().c_str());
    dropLog();
}

} // namespace Quorvex::fuzz
