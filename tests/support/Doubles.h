#pragma once

#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSinkBuffer.h"
#include "quorvex/stream/TraceSource.h"
#include "quorvex/stream/TraceSourceBuffer.h"
#include "tests/support/RandomPackets.h"

#include <cstdint>
#include <string>
#include <utility>
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

    bool write(const char* src, unsigned count, std::uint64_t position, unsigned& written) override;
    bool write(const char* src, unsigned count, unsigned& written) override;
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

    bool read(char* dst, unsigned count, std::uint64_t position, unsigned& got) override;
    bool read(char* dst, unsigned count, unsigned& got) override;
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
std::string readFrom(CTraceSourceBuffer& source, unsigned count, std::uint64_t position = kUnknown64);

/// How many bytes of a text a write takes; "!" stands behind it when the write tells of a failure.
std::string writeTo(CTraceSinkBuffer& sink, const std::string& text, std::uint64_t position = kUnknown64);

/// The packets that a source gives until it has none, each as its bytes.
std::vector<std::string> readAll(CTraceSource& source, bool inLists = false);

/// The same of a trace.
std::vector<std::string> packetsIn(const std::string& trace, bool inLists = false);

/// A Fill packet of that many bytes.
std::string fillOf(std::size_t size);

/// A definition with a name of that many bytes.
CFunctionDefine named(std::size_t length);

std::string join(const std::vector<std::string>& packets);

} // namespace Quorvex::test
