// The packets of any trace can be shown in every form, and the parsable plain table of one without damage gives the
// same bytes back.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"
#include "quorvex/export/PacketDebugger.h"
#include "quorvex/export/PacketHTML.h"
#include "quorvex/export/PacketLaTeX.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/stream/TraceTextReader.h"

#include <sstream>

namespace Quorvex::fuzz {

void table(const std::string& data) {
    const std::string trace = cleaned(data);
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    std::ostringstream plainOut, htmlOut, latexOut, wordsOut;
    CPacketPlain plain(plainOut, data.size() % 2 == 0, 0);
    plain.SetParsable(true);
    plain.SetHexTick(data.size() % 3 == 0);
    CPacketHTML html(htmlOut, true, 0);
    CPacketLaTeX latex(latexOut, true, 0);
    CPacketDebugger words(wordsOut, true);
    while (const PacketPointer packet{reader.get()}) {
        require(plain.put(packet.get()) && html.put(packet.get()) && latex.put(packet.get()) && words.put(packet.get()),
                "every packet can be shown");
    }
    std::istringstream in(plainOut.str());
    TraceTextReader text(in);
    const std::string back = join(readAll(text));
    require(text.errors() == 0 && back == trace, "binary to text to binary");
}

} // namespace Quorvex::fuzz
