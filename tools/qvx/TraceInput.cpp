#include "TraceInput.h"

#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <string_view>

namespace qvx {

using namespace Quorvex;
using platform::FileStatus;

namespace {

/// The text that belongs to a packet; null for a kind that has none.
const CCharStringSequence* textOf(const CPacket& packet) {
    const CCharStringSequence* text = nullptr;
    visitKind(packet, [&text](const auto& kind) { text = kind.text(); });
    return text;
}

/// What a program that is killed has not written yet, if it records in the usual way.
const std::string kMissing = fmt::format("of what a program recorded, at most the last {} bytes", kPageSize);
constexpr char kAllThere[] = "the program that records it still runs or was killed; nothing is missing";

/// Whether a page behind the first one, which is destroyed, is part of a trace. Of a long file so many are looked at.
bool hasTracePage(std::ifstream& file) {
    constexpr std::uint64_t kMostPages = 64;
    file.clear();
    file.seekg(0, std::ios::end);
    const std::uint64_t pages = static_cast<std::uint64_t>(std::streamoff(file.tellg())) / kPageSize;
    std::string page(kPageSize, '\0');
    const std::uint64_t step = pages / kMostPages + 1;
    for (std::uint64_t at = 1; at <= pages; at += step) {
        file.clear();
        file.seekg(static_cast<std::streamoff>(at * kPageSize));
        file.read(page.data(), kPageSize);
        const std::string_view block(page.data(), static_cast<std::size_t>(file.gcount()));
        if (!block.empty() && looksLikeTrace(block))
            return true;
    }
    return false;
}

} // namespace

bool breaksOff(const CPacket& packet, std::uint64_t taken) {
    const CCharStringSequence* text = textOf(packet);
    return text && text->length() > 0 && text->length() % kCharStringMax == 0 && packet.StreamSize() > taken;
}

HeadedBuffer::HeadedBuffer(std::streambuf& rest, std::size_t count) : m_rest(rest), m_bytes(count, '\0') {
    const auto taken = m_rest.sgetn(m_bytes.data(), static_cast<std::streamsize>(count));
    m_taken = static_cast<std::size_t>(std::max<std::streamsize>(taken, 0));
    setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + m_taken);
}

HeadedBuffer::int_type HeadedBuffer::underflow() {
    const auto count = m_rest.sgetn(m_bytes.data(), static_cast<std::streamsize>(m_bytes.size()));
    setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + std::max<std::streamsize>(count, 0));
    return count > 0 ? traits_type::to_int_type(m_bytes.front()) : traits_type::eof();
}

TraceInput::TraceInput(const std::string& path)
    : m_name(path == "-" ? "standard input" : path), m_stream(nullptr), m_streamSource(m_stream) {
    const bool isNamed = path != "-";
    const FileStatus status = isNamed ? FileStatus::of(path) : FileStatus();
    errno = 0;
    if (isNamed && status.sort != FileStatus::Directory)
        m_file.open(path, std::ios::binary);
    if (isNamed && !m_file.is_open())
        throw Failure(m_name, platform::errorText(
                                  status.sort == FileStatus::Directory ? EISDIR : platform::openError(path.c_str())));
    m_stream.rdbuf(&m_bytes.emplace(isNamed ? *m_file.rdbuf() : *std::cin.rdbuf(), kPageSize));
    FileKind kind = kindOfFile(m_bytes->head());
    if (kind == FileKind::Unknown && status.sort == FileStatus::Regular && hasTracePage(m_file))
        kind = FileKind::Trace;
    switch (kind) {
    case FileKind::Table:
        m_table.emplace(m_stream);
        break;
    case FileKind::PageFile:
        throw Failure(m_name, path.ends_with(".page")
                                  ? "is the page file of a trace, which is " + path.substr(0, path.rfind('.'))
                                  : "is the page file of a trace");
    case FileKind::Trace:
        if (status.sort == FileStatus::Regular) {
            m_file.close();
            if (!m_traceFile.open(path))
                throw Failure(m_name, platform::errorText(m_traceFile.error()));
            m_reader.emplace(m_traceFile);
        } else {
            m_reader.emplace(m_streamSource);
        }
        break;
    case FileKind::Unknown:
        throw Failure(m_name, "does not look like a trace");
    }
}

PacketPointer TraceInput::nextOfTable() {
    m_offset = m_tableEnd;
    PacketPointer packet(m_table->get());
    if (packet)
        m_tableEnd += packet->StreamSize();
    m_size = m_table->position();
    if (m_damage.places != m_table->errors()) {
        m_damage.places = m_table->errors();
        // The first error is all that will be told: what the library logs of the others must not pile up.
        while (CMessageQueue::g_Instance->pop()) {
        }
    }
    return packet;
}

PacketPointer TraceInput::next() {
    if (m_table)
        return nextOfTable();
    while (true) {
        m_offset = m_reader->position();
        if (CPacket* packet = m_reader->get()) {
            look(*packet);
            return PacketPointer(packet);
        }
        // The reader has stepped over a packet that it could not build. Where it has not moved, skip() may help; if
        // not, what is left is a cut packet.
        if (m_reader->position() != m_offset || m_reader->skip()) {
            addDamage(m_offset, m_reader->position());
            m_breaksOff = false;
            m_textOf = Invalid;
            continue;
        }
        finish();
        return nullptr;
    }
}

void TraceInput::look(const CPacket& packet) {
    const tagTCode code = packet.TraceCode();
    const std::uint64_t size = packet.StreamSize();
    const std::uint64_t taken = m_reader->position() - m_offset;
    if (size < taken)
        addDamage(m_offset + size, m_offset + taken);
    if (code == TraceEnabled || code == TraceDisabled || code == EndOfTrace) {
        m_isFrameOpen = code == TraceEnabled;
        m_isEnded = !m_isFrameOpen;
    }
    const auto text = textOf(packet);
    m_breaksOff = breaksOff(packet, taken);
    m_textOf = m_breaksOff || (text && text->empty()) ? code : Invalid;
}

void TraceInput::finish() {
    const bool isWhole = m_reader->remain() == 0;
    const tagTCode code = m_reader->peek();
    m_size = m_offset + m_reader->remain();
    m_isRead = true;
    if (m_breaksOff || (m_textOf != Invalid && code == CharString))
        m_cutIn = fmt::format("the text of a packet of kind {}", CTCodeInfo::TCodeToName(m_textOf));
    else if (!isWhole)
        m_cutIn = CTCodeInfo::TCodeIsValid(code) ? fmt::format("a packet of kind {}", CTCodeInfo::TCodeToName(code))
                                                 : "a packet of unknown kind";
}

std::string TraceInput::ending() const {
    if (!m_cutIn.empty())
        return fmt::format("offset {}, within {}; {} are missing", m_offset, m_cutIn, kMissing);
    if (!m_isFrameOpen)
        return m_isEnded ? "complete" : "not marked";
    return isAllThere() ? kAllThere : fmt::format("missing; {}", kMissing);
}

ExitCode TraceInput::reportDamage() const {
    ExitCode exitCode = Done;
    if (m_table && m_damage.places > 0) {
        const TraceTextReader::Error& error = m_table->firstError();
        tell(fmt::format("{}: line {}, column {}: {}; {} row{} skipped", m_name, error.line, error.column, error.text,
                         m_damage.places, m_damage.places == 1 ? "" : "s"));
        return DoneWithLoss;
    }
    if (m_damage.places > 0) {
        const std::string where =
            m_damage.places > 1 ? fmt::format("first of {} damaged places, ", m_damage.places) : "";
        tell(fmt::format("{}: offset {}: {}{} byte{} stepped over", m_name, m_damage.first, where, m_damage.bytes,
                         m_damage.bytes == 1 ? "" : "s"));
        exitCode = DoneWithLoss;
    }
    if (!m_isRead || (!m_isFrameOpen && m_cutIn.empty()))
        return exitCode;
    if (m_cutIn.empty() && isAllThere()) {
        tell(fmt::format("{}: {}", m_name, kAllThere));
        return exitCode;
    }
    tell(m_cutIn.empty() ? fmt::format("{}: the end of the trace is missing; {}", m_name, kMissing)
                         : fmt::format("{}: offset {}: the trace ends within {}; {} are missing", m_name, m_offset,
                                       m_cutIn, kMissing));
    return DoneWithLoss;
}

void TraceInput::addDamage(std::uint64_t from, std::uint64_t to) {
    if (m_damage.places == 0)
        m_damage.first = from;
    if (m_damageEnd != from)
        ++m_damage.places;
    m_damageEnd = to;
    m_damage.bytes += to - from;
}

} // namespace qvx
