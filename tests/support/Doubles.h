#pragma once

#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceSourceBuffer.h"

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
    bool refuse = false;                 ///< writes of bytes fail and move nothing
    bool fixed = false;                  ///< cannot move back
    unsigned most = ~0U;                 ///< no write takes more than that
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
        const unsigned taken = std::min(count, most);
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
    void clear() override {}
    std::uint64_t tellp() override { return at; }
};

/// A source from memory that gives its bytes in portions and can be told to fail.
class MemorySource : public CTraceSourceBuffer {
public:
    std::string bytes;
    std::uint64_t at = 0;
    unsigned portion;              ///< no read gives more than that
    std::uint64_t failAt = ~0ULL;  ///< reads from there on fail
    std::uint64_t claimed = ~0ULL; ///< size() in place of the real one

    explicit MemorySource(std::string content, unsigned most = ~0U) : bytes(std::move(content)), portion(most) {}

    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override {
        at = position;
        return read(dst, count, got);
    }
    bool read(char* dst, unsigned count, unsigned& got) override {
        const std::uint64_t end = std::min<std::uint64_t>(bytes.size(), failAt);
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

} // namespace Quorvex::test
