// Writes the events of bench/Calls.h as a trace in the Common Trace Format 1.8: one stream, in packets of 256 KiB, each
// event a number of its kind, a time and a function, unaligned.
//
//     Ctf write EVENTS DIRECTORY

#include "bench/Calls.h"
#include "bench/peers/Work.h"

#include <fstream>
#include <string>

namespace {

constexpr char kMetadata[] = R"(/* CTF 1.8 */
typealias integer { size = 8; align = 8; signed = false; } := uint8_t;
typealias integer { size = 32; align = 8; signed = false; } := uint32_t;
typealias integer { size = 64; align = 8; signed = false; } := uint64_t;
trace { major = 1; minor = 8; byte_order = le; packet.header := struct { uint32_t magic; uint32_t stream_id; }; };
clock { name = monotonic; freq = 1000000000; };
typealias integer { size = 64; align = 8; signed = false; map = clock.monotonic.value; } := time_t;
stream {
    id = 0;
    packet.context := struct {
        time_t timestamp_begin; time_t timestamp_end; uint64_t content_size; uint64_t packet_size; uint32_t cpu_id;
    };
    event.header := struct { uint8_t id; time_t timestamp; };
    event.context := struct { uint32_t vtid; };
};
event { id = 0; name = enter; stream_id = 0; fields := struct { uint32_t function; }; };
event { id = 1; name = leave; stream_id = 0; fields := struct { uint32_t function; }; };
)";

template <class Value> void append(std::string& bytes, Value value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

unsigned write(unsigned events, const std::string& directory) {
    constexpr std::size_t kPacket = 256 * 1024, kHeader = 8 + 36, kEvent = 17;
    std::ofstream(directory + "/metadata") << kMetadata;
    std::ofstream stream(directory + "/stream", std::ios::binary);
    bench::Calls calls(events);
    std::string body;
    std::uint64_t first = 0, last = 0;
    for (unsigned i = 0; i < events; ++i) {
        const bench::Calls::Event event = calls.next();
        if (body.empty())
            first = event.tick;
        last = event.tick;
        append(body, static_cast<std::uint8_t>(!event.isEnter));
        append(body, event.tick);
        append(body, std::uint32_t{1});
        append(body, event.function);
        if (kHeader + body.size() + kEvent <= kPacket && i + 1 < events)
            continue;
        std::string header;
        append(header, std::uint32_t{0xC1FC1FC1});
        append(header, std::uint32_t{0});
        append(header, first);
        append(header, last);
        append(header, std::uint64_t{8 * (kHeader + body.size())});
        append(header, std::uint64_t{8 * kPacket});
        append(header, std::uint32_t{0});
        body.resize(kPacket - kHeader);
        stream << header << body;
        body.clear();
    }
    return stream.flush() ? events : 0;
}

} // namespace

int main(int, char** argv) {
    return measure(eventsOf(argv), [&] { return write(eventsOf(argv), argv[3]); });
}
