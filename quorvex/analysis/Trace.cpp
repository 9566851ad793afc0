#include "quorvex/analysis/Trace.h"

#include "quorvex/analysis/Merged.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/Contexts.h"

#include <limits>
#include <utility>

namespace Quorvex {

/// What the packets that have been read tell of those that follow.
struct detail::TraceFacts {
    CTraceNames names;
    std::vector<TimeBase> clocks; ///< by file
};

namespace {

std::optional<std::uint32_t> small(std::optional<std::uint64_t> number) {
    if (!number)
        return std::nullopt;
    return static_cast<std::uint32_t>(*number);
}

} // namespace

TracePacket::TracePacket(TracePacket&& other) noexcept {
    *this = std::move(other);
}

TracePacket& TracePacket::operator=(TracePacket&& other) noexcept {
    if (this != &other) {
        ReleasePacket()(m_packet);
        m_packet = std::exchange(other.m_packet, nullptr);
        m_facts = std::move(other.m_facts);
        m_file = other.m_file;
        m_offset = other.m_offset;
    }
    return *this;
}

TracePacket::~TracePacket() {
    ReleasePacket()(m_packet);
}

std::string_view TracePacket::kind() const {
    return CTCodeInfo::TCodeToName(m_packet->TraceCode());
}

std::optional<std::uint64_t> TracePacket::tick() const {
    const std::uint64_t tick = absoluteTickOf(*m_packet);
    return tick == kUnknown64 ? std::nullopt : std::optional(tick);
}

std::optional<std::uint64_t> TracePacket::nanoseconds() const {
    const std::optional<std::uint64_t> ticks = tick();
    return ticks ? m_facts->clocks[m_file].nanoseconds(*ticks, core().value_or(TimeBase::kAnyCore)) : std::nullopt;
}

std::optional<std::uint32_t> TracePacket::core() const {
    return small(field("HWCtx"));
}

std::optional<std::uint32_t> TracePacket::thread() const {
    return small(field("SWCtx"));
}

std::optional<std::uint32_t> TracePacket::id() const {
    const std::optional<Subject> subject = subjectOf(*m_packet);
    return subject ? small(subject->id) : std::nullopt;
}

std::string_view TracePacket::name() const {
    const std::optional<Subject> subject = subjectOf(*m_packet);
    if (!subject || subject->sort == TextSort::None)
        return {};
    CTraceNames& names = m_facts->names;
    return names.name(subject->sort, names.numberOf(subject->sort, subject->id, static_cast<unsigned>(m_file)));
}

std::string_view TracePacket::text() const {
    return wholeTextOf(*m_packet);
}

std::optional<std::uint64_t> TracePacket::field(std::string_view name) const {
    std::optional<std::uint64_t> value;
    bool isFound = false;
    eachNumber(*m_packet, [&](const NumberField& field) {
        if (!isFound && field.name == name) {
            isFound = true;
            if (field.isKnown)
                value = field.value;
        }
    });
    return value;
}

struct Trace::Reading {
    Merged merged;
    std::shared_ptr<detail::TraceFacts> facts = std::make_shared<detail::TraceFacts>();
    TraceOptions options;

    /// Throws if something of a file has been passed over up to an offset.
    void checkDamage(std::size_t file, std::uint64_t offset) const {
        const TraceFile& trace = merged.trace(file);
        const TraceReport& report = trace.report();
        if (report.damage.places == 0 || report.damage.first > offset)
            return;
        if (const TraceTextReader::Error* error = trace.tableError())
            throw TraceError(report.file, "line " + std::to_string(error->line) + ", column " +
                                              std::to_string(error->column) + ": " + error->text);
        throw TraceError(report.file, report.damage.first, "what stands there cannot be read");
    }
    void checkEnds() const {
        for (std::size_t file = 0; file < merged.size(); ++file) {
            checkDamage(file, std::numeric_limits<std::uint64_t>::max());
            const TraceReport& report = merged.trace(file).report();
            if (report.isLossy())
                throw TraceError(report.file, report.endOffset, "the end of the trace is missing");
        }
    }
};

Trace::Trace(const std::vector<FileName>& files, TraceOptions options) : m_reading(platform::makeOwned<Reading>()) {
    m_reading->options = options;
    for (const FileName& file : files)
        m_reading->merged.add(std::make_unique<TraceFile>(file.text()));
    m_reading->facts->clocks.resize(files.size());
}

Trace::Trace(Trace&&) noexcept = default;

Trace& Trace::operator=(Trace&&) noexcept = default;

Trace::~Trace() = default;

bool Trace::read() {
    Merged& merged = m_reading->merged;
    m_packet = TracePacket();
    PacketPointer packet = merged.next();
    if (!packet) {
        if (m_reading->options.strict)
            m_reading->checkEnds();
        return false;
    }
    if (m_reading->options.strict)
        m_reading->checkDamage(merged.file(), merged.offset());
    detail::TraceFacts& facts = *m_reading->facts;
    facts.names.note(*packet, static_cast<unsigned>(merged.file()));
    facts.clocks[merged.file()].note(*packet);
    m_packet.m_packet = packet.release();
    m_packet.m_facts = m_reading->facts;
    m_packet.m_file = merged.file();
    m_packet.m_offset = merged.offset();
    return true;
}

std::vector<TraceReport> Trace::reports() const {
    std::vector<TraceReport> reports;
    for (std::size_t file = 0; file < m_reading->merged.size(); ++file)
        reports.push_back(m_reading->merged.report(file));
    return reports;
}

} // namespace Quorvex
