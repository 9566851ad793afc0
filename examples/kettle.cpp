// Writes the trace of a kettle that boils water twice: a function, a counter, a message.
//
//     kettle TRACE

#include "quorvex/quorvex.h"

#include <cstdint>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: kettle TRACE\n";
        return 2;
    }
    constexpr std::uint32_t kCore = 0, kThread = 1, kBoil = 1, kTemperature = 1;
    constexpr std::uint64_t kSecond = 1'000'000; // ticks
    const auto at = [](std::uint64_t tick) {
        return Quorvex::CCoreContext(tick, kCore, kThread, Quorvex::kUnknown64); // no address in the program
    };

    Quorvex::CTraceFileWriterPaged trace(argv[1]);
    const auto put = [&trace](auto packet) { trace.put(&packet); };
    put(Quorvex::CTimestamp(0, kSecond)); // tells how many ticks are a second
    put(Quorvex::CFunctionDefine(at(0), kBoil, "boil"));
    put(Quorvex::CCounterDefine(at(0), kTemperature, 0, "temperature"));
    std::uint64_t tick = 0;
    for (const std::uint64_t coldest : {20U, 80U}) {
        put(Quorvex::CFunctionEnter(at(tick), kBoil));
        for (std::uint64_t degrees = coldest; degrees <= 100; degrees += 20, tick += 30 * kSecond)
            put(Quorvex::CCounterValue(at(tick), kTemperature, TCounter_t(degrees)));
        put(Quorvex::CFunctionLeave(at(tick), kBoil));
        tick += 60 * kSecond;
    }
    put(Quorvex::CMessage(tick, 0, "the kettle is empty"));
    put(Quorvex::CEndOfTrace());
    if (!trace.close()) {
        std::cerr << argv[1] << ": cannot be written\n";
        return 1;
    }
}
