#include "tests/support/Doubles.h"

#include <algorithm>
#include <cstring>
#include <list>

namespace Quorvex::test {

bool MemorySink::write(const char* src, unsigned count, std::uint64_t position, unsigned& written) {
    written = 0;
    if (fixed && position != at)
        return false;
    at = position;
    return write(src, count, written);
}

bool MemorySink::write(const char* src, unsigned count, unsigned& written) {
    operations.push_back("write " + std::to_string(at) + " " + std::to_string(count));
    written = 0;
    if (count == 0)
        return true;
    if (refuse)
        return false;
    const auto taken = static_cast<unsigned>(std::min<std::uint64_t>({count, most, room - bytes.size()}));
    const auto from = static_cast<std::size_t>(at);
    if (bytes.size() < from + taken)
        bytes.resize(from + taken, '\0');
    bytes.replace(from, taken, src, taken);
    at += taken;
    written = taken + boast;
    return written != 0;
}

bool MemorySource::read(char* dst, unsigned count, std::uint64_t position, unsigned& got) {
    at = position;
    return read(dst, count, got);
}

bool MemorySource::read(char* dst, unsigned count, unsigned& got) {
    const std::uint64_t end = ++reads % failEvery == 0 ? 0 : bytes.size();
    got = at < end ? static_cast<unsigned>(std::min<std::uint64_t>({count, portion, end - at})) : 0;
    std::memcpy(dst, bytes.data() + at, got);
    at += got;
    return got != 0 || count == 0;
}

std::string readFrom(CTraceSourceBuffer& source, unsigned count, std::uint64_t position) {
    std::string bytes(count, '\0');
    unsigned got = ~0U;
    const bool good = position == kUnknown64 ? source.read(bytes.data(), count, got)
                                             : source.read(bytes.data(), count, position, got);
    bytes.resize(std::min(got, count + 1));
    return good ? bytes : bytes + "!";
}

std::string writeTo(CTraceSinkBuffer& sink, const std::string& text, std::uint64_t position) {
    const auto count = static_cast<unsigned>(text.size());
    unsigned written = ~0U;
    const bool good = position == kUnknown64 ? sink.write(text.data(), count, written)
                                             : sink.write(text.data(), count, position, written);
    return std::to_string(written) + (good ? "" : "!");
}

std::vector<std::string> readAll(CTraceSource& source, bool inLists) {
    std::vector<std::string> packets;
    std::list<CPacket*> batch;
    const auto more = [&] {
        if (inLists)
            return source.get(batch);
        batch.push_back(source.get());
        return batch.back() != nullptr;
    };
    while (more()) {
        for (CPacket* packet : batch)
            packets.push_back(wireOf(*packet));
        CPacketFactory::release(batch);
    }
    return packets;
}

std::vector<std::string> packetsIn(const std::string& trace, bool inLists) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    return readAll(reader, inLists);
}

std::string fillOf(std::size_t size) {
    return std::string("\x7d") + static_cast<char>(size - 2) + std::string(size - 2, '\x80');
}

CFunctionDefine named(std::size_t length) {
    return CFunctionDefine(CCoreContext(1, 2, 3, 4), 5, std::string(length, 'n').c_str());
}

std::string join(const std::vector<std::string>& packets) {
    std::string trace;
    for (const std::string& packet : packets)
        trace += packet;
    return trace;
}

} // namespace Quorvex::test
