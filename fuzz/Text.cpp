// Reading any text as a table ends. What was read, shown as a table and read again, has the same bytes.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/stream/TraceTextReader.h"

#include <sstream>

namespace Quorvex::fuzz {

void text(const std::string& data) {
    std::istringstream in(data);
    TraceTextReader reader(in);
    std::string trace;
    std::ostringstream out;
    CPacketPlain table(out, false, 0);
    table.SetParsable(true);
    while (const PacketPointer packet{reader.get()}) {
        trace += wireOf(*packet);
        require(table.put(packet.get()), "a packet read from a table can be shown");
    }
    std::istringstream again(out.str());
    TraceTextReader second(again);
    const std::string back = join(readAll(second));
    require(second.errors() == 0, "our own tables have no errors");
    require(back == trace, "text to packets to text to packets");
}

} // namespace Quorvex::fuzz
