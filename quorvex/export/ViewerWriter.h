#pragma once

#include "quorvex/analysis/CounterType.h"
#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/format/Digits.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/TemporaryFile.h"
#include "quorvex/stream/Contexts.h"
#include "quorvex/stream/TraceSink.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

/// What writers are told of how a trace is to be shown, and what no packet tells. Each takes what it has a use for.
struct ViewerOptions {
    std::string inputs; ///< names of what is written
    /// When the traces were last written to, in nanoseconds since 1970, UTC: about when they ended.
    std::optional<std::int64_t> recordedUntil;
    std::map<std::string, CounterType, std::less<>> counters; ///< types of counters, by name
    std::string btfVersion = "2.1.0";                         ///< one of CBtfWriter::kVersions
};

/// Which processes tell of a thread: it ends with the last of them. To be told of each packet.
class ThreadInputs {
public:
    /// A packet of that process has come.
    void tell(unsigned process) {
        if (process != m_last) [[unlikely]]
            m_processes.insert(m_last = process);
    }
    bool isLast(unsigned process) const { return process == m_last; } ///< it told last
    /// The process has ended; true when no other one tells of the thread any more.
    bool end(unsigned process) {
        if (m_last == process)
            m_last = kNone;
        return m_processes.erase(process) > 0 && m_processes.empty();
    }

private:
    static constexpr unsigned kNone = ~0U;

    unsigned m_last = kNone;
    std::set<unsigned> m_processes;
};

/// What writers for other viewers do alike. Their files begin with what is only known at the end, so the lines of the
/// body go to a temporary file first; memory grows with what is defined in a trace, not with its length. The file is
/// written when a trace-disabled packet arrives, or by flush() at the end of a trace that has none.
///
/// Packets may be absolute or relative. Ticks must not go back; where they do, and where they are unknown, a packet is
/// shown at the time of the one before it. What a writer has no case for is counted as lost, be it of a kind that comes
/// later; but undefinitions, and what only frames a trace. The stream must outlive the writer.
///
/// A software context is one thread, whichever trace tells of it. The type of a counter is found out of all its values
/// (CounterSort); the options may tell it.
class QUORVEX_API CViewerWriter : public CTraceSink {
public:
    CViewerWriter(const CViewerWriter&) = delete;
    CViewerWriter& operator=(const CViewerWriter&) = delete;

    /// Nothing has failed, and the file has not been written yet.
    bool good() override { return !m_failed && !m_finished && m_out.good(); }
    /// What the temporary file has lost stays a failure.
    void clear() override;
    /// False for null, behind the end of the trace, and when the temporary file cannot be written.
    bool put(CPacket* packet) override;
    /// The same of an absolute packet whose tick is known, kUnknown64 where it has none. Such packets tell relative
    /// ones nothing.
    bool putAbsolute(const CPacket& packet, std::uint64_t tick);
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return bodySize(); } ///< bytes of the body so far
    /// Writes the file, if that has not been done.
    void flush() override;

    /// The packets from now on are of that process. Traces of the same process, and those of which nothing is known but
    /// that they name things alike, may have the same number; CTraceNames tells how they share names.
    void setProcess(unsigned process) {
        if (process == m_process)
            return;
        m_isOneProcess = m_isOneProcess && m_start == kUnknown64;
        m_process = process;
    }
    /// There are no more packets of that process: threads of which no other process tells end where its last packet,
    /// which was just put, is.
    void endProcess(unsigned process);

    /// How many times something could not be shown as it is in the trace, by reason.
    using Losses = std::map<std::string, std::uint64_t, std::less<>>;
    const Losses& losses() const { return m_losses; } ///< so far
    /// What is said of packets of a kind for which the writer has no case.
    static std::string wordsFor(tagTCode kind);
    /// Whether nothing of the trace is shown, because it holds nothing of that sort.
    bool isEmpty() const { return !m_showsSome; }
    /// Whether the length of a tick is known; otherwise it is shown as a nanosecond.
    bool knowsClock() const { return frequency() != 0; }
    /// Whether the file has been written without a failure.
    bool written() const { return m_finished && !m_failed; }
    /// Why the temporary file failed, an error number of the system (errno); 0 where it did not.
    int error() const { return m_body.error(); }

    virtual ~CViewerWriter();

protected:
    /// A writer that shows names of those sorts.
    CViewerWriter(std::ostream& out, std::initializer_list<TextSort> shown, ViewerOptions options = {});

    /// Shows an absolute packet, `time` ticks behind the first known tick. Times never go back. False when the writer
    /// has no case for it.
    virtual bool show(const CPacket& packet, std::uint64_t time) = 0;
    /// What runs in a process ends, at the time of the last packet.
    virtual void endOf(unsigned process, std::uint64_t time);
    /// Completes the body; the time is that of the last packet.
    virtual void end(std::uint64_t time) = 0;
    /// Writes the file: what stands before the body, then copyBody.
    virtual bool writeFile() = 0;

    /// Room for the next lines of the body, which has `most` characters; bodyEnds tells how many they are.
    char* bodyRoom(std::size_t most) {
        if (most > static_cast<std::size_t>(m_bodyLimit - m_bodyEnd))
            makeRoom(most);
        return m_bodyEnd;
    }
    /// The body goes on behind the lines that have been put into bodyRoom and end there.
    void bodyEnds(char* end) { m_bodyEnd = end; }
    /// Puts a time, which is told in ticks, into bodyRoom: at the start of a line, or behind the mark that copyBody is
    /// told. At most 20 characters, which may change also behind the end of
    /// the text, which is returned.
    char* putTime(char* to, std::uint64_t time, std::uint64_t unitsPerSecond) {
        return m_times.put(to, frequency() == unitsPerSecond ? time : unitsOf(time, unitsPerSecond));
    }
    /// Something that stands in lines of the body so far has turned out to be otherwise: copyBody calls fixLine for
    /// each of them.
    void fixBodySoFar() { m_inDoubt = bodySize(); }
    /// Appends a line of the body, which ends with a line feed, as it has to be.
    virtual void fixLine(std::string_view line, std::string& to);
    /// Copies the body. Times are in units of the file from the packet on that told the clock. Those before get it now:
    /// in lines that begin with `mark` and a time, or when it is 0, with a time.
    bool copyBody(char mark, std::uint64_t unitsPerSecond);
    /// Reads a part of the body, while the file is written; false when that fails.
    bool readBody(std::uint64_t from, char* to, std::size_t size);
    /// Ticks in units of the file, of which there are a power of 1000 in a second; no more than viewers can show, which
    /// counts as a loss.
    std::uint64_t unitsOf(std::uint64_t ticks, std::uint64_t unitsPerSecond);
    /// Writes to the file; false when that fails.
    bool writeOut(std::string_view text);
    /// Counts a loss.
    void lose(std::string_view reason) { ++lossesFor(reason); }

    /// What is said of a gap, where a format has no way to show it.
    static constexpr char kGaps[] = "gaps in the trace";
    /// What is said of enters of a function whose number is not known.
    static constexpr char kNoFunction[] = "functions without a number";

    /// Where a packet that has no case tells that something runs; null if it does not.
    static const CCoreContext* placeOf(const CPacket& packet);

    const CTraceNames& names() const { return m_names; } ///< so far
    /// The number by which names() knows what the packet that is shown calls by that identifier.
    std::uint32_t numberOf(TextSort sort, std::uint32_t id) {
        return static_cast<std::uint32_t>(m_names.numberOf(sort, id, m_process));
    }
    /// The same of what is numbered within a state machine.
    std::uint64_t numberOf(TextSort sort, std::uint32_t machine, std::uint32_t id);
    /// What is known of the type of a counter, by its number. Stays where it is; its note() is for the writer to call.
    CounterSort& counterSort(std::uint32_t number);
    /// The unit of a counter, by its number; empty where none is told.
    const std::string& counterUnit(std::uint32_t number) const;
    const ViewerOptions& options() const { return m_options; } ///< as they were given
    /// Of which process the packet is that is shown.
    unsigned process() const { return m_process; }
    /// Whether all packets so far were of one process.
    bool isOneProcess() const { return m_isOneProcess; }
    /// Ticks in a second; 0 when the trace does not tell.
    std::uint64_t frequency() const { return m_clock.frequency(); }
    /// The first known tick; unknown when there has been none.
    std::uint64_t startTick() const { return m_start; }

private:
    /// Bytes of the body that are not yet in the file.
    std::size_t pending() const { return static_cast<std::size_t>(m_bodyEnd - m_buffer.data()); }
    std::uint64_t bodySize() const { return m_inFile + pending(); }
    void makeRoom(std::size_t most);
    /// The time that a tick stands for, and the next unknown ones.
    std::uint64_t timeOf(std::uint64_t tick);
    /// Takes note of what tells how others are to be shown.
    void learn(const CPacket& packet);
    /// Counts a packet that is not shown, if that is a loss.
    void countLoss(const CPacket& packet);
    bool showsNames(TextSort sort) const;
    /// Takes note of what a definition says of a counter.
    void noteCounter(const CPacket& packet);
    void tellType(std::uint32_t number, CounterSort& sort) const;
    /// Whether the trace is poorer without the packet.
    bool isLost(const CPacket& packet) const;
    std::uint64_t& lossesFor(std::string_view reason);
    bool finish();

    std::ostream& m_out;
    platform::TemporaryFile m_body;
    std::uint64_t m_inTicks = 0; ///< how much of the body has its times in ticks
    std::uint64_t m_inDoubt = 0; ///< how much has lines that may have to be fixed
    std::uint64_t m_inFile = 0;  ///< how much has been handed to the temporary file
    std::vector<char> m_buffer;  ///< the rest,
    char* m_bodyEnd = nullptr;   ///< which ends there,
    char* m_bodyLimit = nullptr; ///< and the end of its room
    CTraceNames m_names;
    unsigned m_process = 0;
    bool m_isOneProcess = true;
    bool m_showsSome = false;
    std::vector<TextSort> m_shown; ///< the sorts of names
    ViewerOptions m_options;
    Directory<std::uint32_t, CounterSort> m_counters;
    std::map<std::uint32_t, std::string> m_units; ///< of counters
    TimeBase m_clock;
    Losses m_losses;
    std::array<std::uint64_t*, 256> m_lostKinds{}; ///< where in m_losses the packets of a kind are counted
    std::uint64_t m_start = kUnknown64;
    std::uint64_t m_time = 0;
    DecimalSeries m_times; ///< of the body
    CContexts m_contexts;
    bool m_failed = false;
    bool m_finished = false;
};

} // namespace Quorvex
