// A program that writes a trace into its own memory and reads it there: streams take the place of files.

#include "quorvex/quorvex.h"

#include <iostream>
#include <sstream>

int main() {
    std::stringstream memory;
    Quorvex::CTraceSinkBufferStream sink(memory);
    Quorvex::CTraceWriterPaged writer(sink);
    Quorvex::CFunctionDefine define(Quorvex::CCoreContext(1, 0, 1, Quorvex::kUnknown64), 5, "main");
    writer.put(&define);
    writer.flush();

    Quorvex::CTraceSourceBufferStream source(memory);
    Quorvex::CTraceReaderPlain reader(source);
    while (Quorvex::CPacket* packet = reader.get()) {
        if (const auto* function = Quorvex::packetAs<Quorvex::CFunctionDefine>(*packet))
            std::cout << "function " << function->FuncId() << " is " << function->FuncDef().view() << '\n';
        Quorvex::CPacketFactory::releaseCPacket(&packet);
    }
}
