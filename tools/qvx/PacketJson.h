#pragma once

#include "Timeline.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TraceSpan.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

class JsonLine;

/// Adds what a packet in absolute form tells, with the names that a process has given.
void addPacket(JsonLine& line, const Quorvex::CPacket& packet, std::uint64_t tick, const Quorvex::TraceSpan& span,
               Quorvex::CTraceNames& names, unsigned process = 0);

/// Packets as objects of the machine interface.
class PacketJson : public Timeline::Onlooker {
public:
    /// Of more than one file, each object tells its own.
    explicit PacketJson(const std::vector<std::string>& files) : m_files(files) {}

    void pass(std::size_t file, const Quorvex::CTraceCursor& packet) override;
    void pass(std::size_t file, const Quorvex::CPacket& packet, std::uint64_t tick) override;
    /// The line of the packet that the timeline has given last.
    std::string line(const Timeline& from, const Quorvex::CPacket& packet, const Quorvex::TraceSpan& span);

private:
    const std::vector<std::string>& m_files;
    Quorvex::CTraceNames m_names;
};

} // namespace qvx
