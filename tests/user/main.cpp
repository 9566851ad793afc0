// A program of a user of the library.

#include "quorvex/quorvex.h"

#include <cstdio>
#include <sstream>

int main() {
    std::stringstream trace;
    Quorvex::CTraceSinkBufferStream sink(trace);
    Quorvex::CTraceWriterPaged writer(sink);
    Quorvex::CFunctionDefine define(Quorvex::CCoreContext(1, 2, 3, 4), 5, "main");
    writer.put(&define);
    writer.flush();

    // Across the border of a shared library: packets, their classes, and what is thrown.
    Quorvex::CTraceSourceBufferStream source(trace);
    Quorvex::CTraceReaderPlain reader(source);
    Quorvex::CPacket* packet = reader.get();
    const auto* read = dynamic_cast<Quorvex::CFunctionDefine*>(packet);
    const bool good = read && read->FuncDef().view() == "main";
    Quorvex::CPacketFactory::releaseCPacket(&packet);
    try {
        unsigned consumed = 0;
        Quorvex::CSync(Quorvex::CPacketHeader(Quorvex::Sync, 24), "", 0, consumed);
    } catch (const Quorvex::CQVXException&) {
        std::puts(good ? "works" : "wrong packet");
        return good ? 0 : 1;
    }
    return 1;
}
