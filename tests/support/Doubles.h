#pragma once

#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceSource.h"
#include "quorvex/stream/TraceSourceBuffer.h"
#include "tests/support/RandomPackets.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace Quorvex::test {

/// A sink into memory that can be told to fail.
class MemorySink : public CTraceSinkBuffer {
public:
    std::string bytes;
    std::uint64_t at = 0;
    bool refuse = false;                 ///< until it is cleared, writes of bytes fail and move nothing
    bool fixed = false;                  ///< cannot move back
    unsigned most = ~0U;                 ///< no write takes more than that
    std::uint64_t room = ~0ULL;          ///< how many bytes there can be in all
    unsigned boast = 0;                  ///< added to the reported count
    std::vector<std::string> operations; ///< "write POSITION COUNT", "flush"

    explicit MemorySink(const std::string& start = {}) : bytes(start), at(start.size()) {}

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override {
        written = 0;
        if (fixed && position != at)
            return false;
        at = position;
        return write(src, count, written);
    }
    bool write(const char* src, unsigned count, unsigned& written) override {
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
    bool eof() override { return false; }
    bool good() override { return !refuse; }
    void flush() override { operations.emplace_back("flush"); }
    void clear() override { refuse = false; }
    std::uint64_t tellp() override { return at; }
};

/// A source from memory that gives its bytes in portions and can be told to fail.
class MemorySource : public CTraceSourceBuffer {
public:
    std::string bytes;
    std::uint64_t at = 0;
    unsigned portion;         ///< no read gives more than that
    unsigned failEvery = ~0U; ///< each read of that number fails
    unsigned reads = 0;
    std::uint64_t claimed = ~0ULL; ///< size() in place of the real one

    explicit MemorySource(std::string content, unsigned most = ~0U) : bytes(std::move(content)), portion(most) {}

    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override {
        at = position;
        return read(dst, count, got);
    }
    bool read(char* dst, unsigned count, unsigned& got) override {
        const std::uint64_t end = ++reads % failEvery == 0 ? 0 : bytes.size();
        got = at < end ? static_cast<unsigned>(std::min<std::uint64_t>({count, portion, end - at})) : 0;
        std::memcpy(dst, bytes.data() + at, got);
        at += got;
        return got != 0 || count == 0;
    }
    bool eof() override { return at >= bytes.size(); }
    bool good() override { return true; }
    void clear() override {}
    std::uint64_t position() override { return at; }
    std::uint64_t size() override { return claimed != ~0ULL ? claimed : bytes.size(); }
    void flush() override {}
};

/// What calls give, one after the other.
using Steps = std::vector<std::string>;

/// What a read gives; "!" stands behind it when the read tells of a failure.
inline std::string readFrom(CTraceSourceBuffer& source, unsigned count, std::uint64_t position = kUnknown64) {
    std::string bytes(count, '\0');
    unsigned got = ~0U;
    const bool good = position == kUnknown64 ? source.read(bytes.data(), count, got)
                                             : source.read(bytes.data(), count, position, got);
    bytes.resize(std::min(got, count + 1));
    return good ? bytes : bytes + "!";
}

/// How many bytes of a text a write takes; "!" stands behind it when the write tells of a failure.
inline std::string writeTo(CTraceSinkBuffer& sink, const std::string& text, std::uint64_t position = kUnknown64) {
    const auto count = static_cast<unsigned>(text.size());
    unsigned written = ~0U;
    const bool good = position == kUnknown64 ? sink.write(text.data(), count, written)
                                             : sink.write(text.data(), count, position, written);
    return std::to_string(written) + (good ? "" : "!");
}

/// The packets that a source gives until it has none, each as its bytes.
inline std::vector<std::string> readAll(CTraceSource& source, bool inLists = false) {
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

/// The same of a trace.
inline std::vector<std::string> packetsIn(const std::string& trace, bool inLists = false) {
    MemorySource source(trace);
    CTraceReaderPlain reader(source);
    return readAll(reader, inLists);
}

/// A Fill packet of that many bytes.
inline std::string fillOf(std::size_t size) {
    return std::string("\x7d") + static_cast<char>(size - 2) + std::string(size - 2, '\x80');
}

/// A definition with a name of that many bytes.
inline CFunctionDefine named(std::size_t length) {
    return CFunctionDefine(CCoreContext(1, 2, 3, 4), 5, std::string(length, 'n').c_str());
}

inline std::string join(const std::vector<std::string>& packets) {
    std::string trace;
    for (const std::string& packet : packets)
        trace += packet;
    return trace;
}

} // namespace Quorvex::test
