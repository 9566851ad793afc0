#pragma once

#include "quorvex/export/TraceNames.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/TemporaryFile.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceSink.h"

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>

namespace Quorvex {

/// What writers for other viewers do alike. Their files begin with what is only known at the end, so the lines of the
/// body go to a temporary file first; memory grows with what is defined in a trace, not with its length. The file is
/// written when a trace-disabled packet arrives, or by flush() at the end of a trace that has none.
///
/// Packets may be absolute or relative. Ticks must not go back; where they do, and where they are unknown, a packet is
/// shown at the time of the one before it. The stream must outlive the writer.
class QUORVEX_API CViewerWriter : public CTraceSink {
public:
    CViewerWriter(const CViewerWriter&) = delete;
    CViewerWriter& operator=(const CViewerWriter&) = delete;

    /// Nothing has failed, and the file has not been written yet.
    bool good() override { return !m_failed && !m_finished && m_out.good(); }
    void clear() override;
    /// False for null, behind the end of the trace, and when the temporary file cannot be written.
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return m_bodySize; } ///< bytes of the body so far
    /// Writes the file, if that has not been done.
    void flush() override;

    /// How many times something could not be shown as it is in the trace, by reason.
    using Losses = std::map<std::string, std::uint64_t, std::less<>>;
    const Losses& losses() const { return m_losses; }
    /// Whether the file has been written without a failure.
    bool written() const { return m_finished && !m_failed; }

    /// The time that a packet tells by itself; unknown for relative packets.
    static std::uint64_t tickOf(const CPacket& packet) { return CContexts().tickOf(packet); }

    virtual ~CViewerWriter();

protected:
    explicit CViewerWriter(std::ostream& out) : m_out(out) {}

    /// Shows an absolute packet, `time` ticks behind the first known tick. Times never go back.
    virtual void show(const CPacket& packet, std::uint64_t time) = 0;
    /// Completes the body; the time is that of the last packet.
    virtual void end(std::uint64_t time) = 0;
    /// Writes the file: what stands before the body, then copyBody.
    virtual bool writeFile() = 0;

    /// Appends to the body.
    void writeBody(std::string_view text);
    /// Copies the body. A line that begins with a time, in ticks, gets it in units of the file: `mark` is the character
    /// before the times, or 0 when they begin the line.
    bool copyBody(char mark, std::uint64_t unitsPerSecond);
    /// Ticks in units of the file, of which there are a power of 1000 in a second.
    std::uint64_t unitsOf(std::uint64_t ticks, std::uint64_t unitsPerSecond) const;
    bool writeOut(std::string_view text);
    void lose(std::string_view reason);

    const CTraceNames& names() const { return m_names; }
    /// Ticks in a second; 0 when the trace does not tell.
    std::uint64_t frequency() const { return m_frequency; }
    /// The first known tick; unknown when there has been none.
    std::uint64_t startTick() const { return m_start; }

private:
    bool showAbsolute(CPacket& packet);
    std::uint64_t timeOf(const CPacket& packet);
    bool finish();

    std::ostream& m_out;
    platform::TemporaryFile m_body;
    std::uint64_t m_bodySize = 0;
    std::string m_buffer; ///< of the body, not yet in the file
    CTraceNames m_names;
    Losses m_losses;
    std::uint64_t m_start = kUnknown64;
    std::uint64_t m_time = 0;
    std::uint64_t m_frequency = 0;
    CContexts m_contexts;
    bool m_failed = false;
    bool m_finished = false;
};

} // namespace Quorvex
