#include "quorvex/export/ViewerWriter.h"

#include "quorvex/analysis/RecordedFact.h"
#include "quorvex/export/ForwardAll.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>

namespace Quorvex {

namespace {

constexpr std::size_t kBufferSize = 0x10000;
/// Viewers hold times as signed numbers of 64 bits, and some take the last of them for something else.
constexpr std::uint64_t kLongest = std::numeric_limits<std::int64_t>::max() - 2;
constexpr char kTooLate[] = "packets later than viewers can show";

/// What is said of the kinds that viewers mostly cannot show. Of all others, it is the description of the kind.
struct Words {
    tagTCode code;
    std::string_view text;
};
constexpr Words kWords[] = {
    {ExecInsn, "instructions and branches"},
    {NonExecInsn, "instructions and branches"},
    {DirectBranch, "instructions and branches"},
    {IndirectBranch, "instructions and branches"},
    {ReadData, "data accesses"},
    {WriteData, "data accesses"},
    {Event, "events"},
    {Message, "messages"},
    {TraceBroken, "gaps in the trace"},
    {CounterDefineUnit, "units of counters"},
    {CharString, "free texts"},
    {TypeDefine, "types"},
    {BusData, "bus data"},
    {BusAddrData, "bus data"},
    {Signal, "signals"},
    {SystemData, "system trace data"},
    {InitialState, "states of state machines"},
    {Transition, "states of state machines"},
};

} // namespace

CViewerWriter::CViewerWriter(std::ostream& out, std::initializer_list<TextSort> shown, ViewerOptions options)
    : m_out(out), m_shown(shown), m_options(std::move(options)) {}

CViewerWriter::~CViewerWriter() = default;

std::string CViewerWriter::wordsFor(tagTCode code) {
    const auto* row = std::ranges::find(kWords, code, &Words::code);
    return row != std::end(kWords) ? std::string(row->text)
                                   : std::string(CTCodeInfo::TCodeToDescription(code)) + " packets";
}

std::uint64_t CViewerWriter::unitsOf(std::uint64_t ticks, std::uint64_t unitsPerSecond) {
    const std::uint64_t units = TimeBase::unitsOf(ticks, frequency(), unitsPerSecond, kLongest + 1);
    if (units <= kLongest)
        return units;
    lose(kTooLate);
    return kLongest;
}

CounterSort& CViewerWriter::counterSort(std::uint32_t number) {
    return m_counters.findOrMake(number, [&] {
        CounterSort sort;
        tellType(number, sort);
        return sort;
    });
}

void CViewerWriter::tellType(std::uint32_t number, CounterSort& sort) const {
    const auto told = m_options.counters.find(m_names.name(TextSort::Counter, number));
    if (told != m_options.counters.end())
        sort.tell(told->second);
}

const std::string& CViewerWriter::counterUnit(std::uint32_t number) const {
    static const std::string kNone;
    const auto unit = m_units.find(number);
    return unit != m_units.end() ? unit->second : kNone;
}

void CViewerWriter::noteCounter(const CPacket& packet) {
    if (const auto* unit = packetAs<CCounterDefineUnit>(packet)) {
        m_units[numberOf(TextSort::Counter, unit->CntrId())] = wholeTextOf(packet);
    } else if (const auto* counter = packetAs<CCounterDefine>(packet)) {
        const std::uint32_t number = numberOf(TextSort::Counter, counter->CntrId());
        CounterSort* const sort = m_counters.find(number);
        if (!sort)
            return;
        const CounterType before = sort->type();
        tellType(number, *sort);
        if (sort->type() != before)
            fixBodySoFar();
    }
}

void CViewerWriter::endProcess(unsigned process) {
    if (!m_finished)
        endOf(process, m_time);
}

void CViewerWriter::endOf(unsigned, std::uint64_t) {}

void CViewerWriter::fixLine(std::string_view line, std::string& to) {
    to += line;
}

std::uint64_t CViewerWriter::numberOf(TextSort sort, std::uint32_t machine, std::uint32_t id) {
    return m_names.numberOf(sort, CTraceNames::pair(machine, id), m_process);
}

void CViewerWriter::clear() {
    m_failed = !m_body.good();
    m_out.clear();
}

bool CViewerWriter::put(CPacket* packet) {
    if (!packet || m_finished)
        return false;
    const KindFacts& facts = factsOf(packet->TraceCode());
    if (facts.sync != ContextSort::None)
        m_contexts.note(*packet);
    if (!facts.isRelative)
        return putAbsolute(*packet, absoluteTickOf(*packet));
    const std::unique_ptr<CPacket> absolute(m_contexts.absolute(*packet));
    return absolute && putAbsolute(*absolute, absoluteTickOf(*absolute));
}

bool CViewerWriter::putAbsolute(const CPacket& packet, std::uint64_t tick) {
    if (m_finished)
        return false;
    const tagTCode code = packet.TraceCode();
    const bool isHappening = factsOf(code).role == Role::Happening;
    if (!isHappening || code == Message) [[unlikely]]
        learn(packet);
    const std::uint64_t time = timeOf(tick);
    if (code == TraceDisabled) [[unlikely]]
        return finish();
    if (!show(packet, time)) [[unlikely]]
        countLoss(packet);
    else if (isHappening)
        m_showsSome = true;
    return !m_failed;
}

void CViewerWriter::learn(const CPacket& packet) {
    const tagTCode code = packet.TraceCode();
    const KindFacts& facts = factsOf(code);
    if (facts.role == Role::Definition) {
        if (!m_names.note(packet, m_process) && showsNames(facts.text))
            lose("names given anew, of which one is shown");
        noteCounter(packet);
    } else if (code == Message) {
        m_names.note(packet, m_process);
    } else if (code == Timestamp) {
        if (frequency() == 0)
            m_inTicks = bodySize();
        if (!m_clock.note(packet))
            lose("changes of the clock's frequency");
    }
}

void CViewerWriter::countLoss(const CPacket& packet) {
    if (!isLost(packet))
        return;
    const tagTCode code = packet.TraceCode();
    if (code == Message && !RecordedFact(wholeTextOf(packet)).word().empty())
        return lose("what messages tell of the program");
    std::uint64_t*& count = m_lostKinds[code % m_lostKinds.size()];
    if (!count)
        count = &lossesFor(wordsFor(code));
    ++*count;
}

bool CViewerWriter::showsNames(TextSort sort) const {
    return std::ranges::find(m_shown, sort) != m_shown.end();
}

bool CViewerWriter::isLost(const CPacket& packet) const {
    const KindFacts& facts = factsOf(packet.TraceCode());
    if (facts.role == Role::Definition)
        return !showsNames(facts.text);
    if (packet.TraceCode() == Message && RecordedFact(wholeTextOf(packet)).isName())
        return false; // it is told with threads
    // A reader hands an empty string out by itself where it ends a definition: it says nothing.
    return facts.role == Role::Happening && (packet.TraceCode() != CharString || packet.Length() > 0);
}

const CCoreContext* CViewerWriter::placeOf(const CPacket& packet) {
    // A gap tells what ran before it, not what does now.
    const bool tells = factsOf(packet.TraceCode()).role == Role::Happening && packet.TraceCode() != TraceBroken;
    return tells ? contextOf<CCoreContext>(packet) : nullptr;
}

std::uint64_t CViewerWriter::timeOf(std::uint64_t tick) {
    if (tick == kUnknown64)
        return m_time;
    if (m_start == kUnknown64)
        m_start = tick;
    if (tick < m_start || tick - m_start < m_time)
        lose("packets earlier than the one before them");
    else if (tick - m_start > kLongest)
        lose(kTooLate);
    else
        m_time = tick - m_start;
    return m_time;
}

bool CViewerWriter::forward(CPacket*& packet) {
    return put(packet) && CPacketFactory::releaseCPacket(&packet);
}

bool CViewerWriter::forward(std::list<CPacket*>& packets) {
    return forwardEach(*this, packets);
}

void CViewerWriter::flush() {
    if (!m_finished)
        finish();
}

bool CViewerWriter::finish() {
    m_finished = true;
    end(m_time);
    for (const auto& [number, sort] : m_counters) {
        if (sort.isMixed())
            lose("counters with values like doubles and like whole numbers, all shown as whole numbers");
    }
    m_failed = m_failed || !m_body.write(m_buffer.data(), pending()) || !writeFile();
    m_out.flush();
    m_failed = m_failed || !m_out.good();
    return !m_failed;
}

void CViewerWriter::makeRoom(std::size_t most) {
    if (!m_body.write(m_buffer.data(), pending()) && !m_failed) {
        logError("CViewerWriter: Could not write to the temporary file.");
        m_failed = true;
    }
    m_inFile += pending();
    m_bodyEnd = m_buffer.data();
    m_buffer.resize(std::max({kBufferSize, most, m_buffer.size()}));
    m_bodyEnd = m_buffer.data();
    m_bodyLimit = m_bodyEnd + m_buffer.size();
}

bool CViewerWriter::readBody(std::uint64_t from, char* to, std::size_t size) {
    bool isRead = m_body.seek(from);
    for (std::size_t got = 0; isRead && size > 0; to += got, size -= got) {
        got = m_body.read(to, size);
        isRead = got > 0;
    }
    return isRead;
}

bool CViewerWriter::copyBody(char mark, std::uint64_t unitsPerSecond) {
    std::uint64_t inTicks = frequency() == 0 || frequency() == unitsPerSecond ? 0 : m_inTicks;
    std::uint64_t inDoubt = std::max(inTicks, m_inDoubt);
    if (!m_body.seek(0))
        return false;
    std::string rest, timed, out, block(kBufferSize, '\0');
    /// The line with its time in units of the file.
    const auto inUnits = [&](std::string_view line) {
        const bool isMarked = mark == 0 || line.starts_with(mark);
        std::uint64_t time = 0;
        const char* digits = line.data() + (mark != 0 && isMarked ? 1 : 0);
        const auto [end, error] = std::from_chars(digits, line.data() + line.size(), time);
        if (!isMarked || error != std::errc())
            return line;
        timed.assign(line.data(), digits).append(std::to_string(unitsOf(time, unitsPerSecond)));
        return std::string_view(timed.append(end, line.data() + line.size()));
    };
    while (const std::size_t got = m_body.read(block.data(), block.size())) {
        // What is in doubt, and what is in ticks, ends with a line.
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(got, inDoubt));
        inDoubt -= count;
        rest.append(block, 0, count);
        std::size_t from = 0;
        for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n', from)) {
            const std::string_view line(rest.data() + from, end + 1 - from);
            fixLine(inTicks > 0 ? inUnits(line) : line, out);
            inTicks -= std::min<std::uint64_t>(inTicks, line.size());
            from = end + 1;
        }
        rest.erase(0, from);
        if (!writeOut(out) || !writeOut({block.data() + count, got - count}))
            return false;
        out.clear();
    }
    return m_body.good();
}

std::uint64_t& CViewerWriter::lossesFor(std::string_view reason) {
    const auto at = m_losses.find(reason);
    return at != m_losses.end() ? at->second : m_losses.emplace(reason, 0).first->second;
}

bool CViewerWriter::writeOut(std::string_view text) {
    return m_out.write(text.data(), static_cast<std::streamsize>(text.size())).good();
}

} // namespace Quorvex
