#include "quorvex/analysis/TraceFile.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/platform/OutputFile.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/ReadWatch.h"
#include "quorvex/stream/TraceReaderPlain.h"
#include "quorvex/stream/TraceSourceBufferFile.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <streambuf>
#include <string_view>
#include <utility>

namespace Quorvex {

PacketPointer absoluteAt(const CTraceCursor& packet) {
    PacketPointer object(packet.packet());
    if (object && factsOf(packet.TraceCode()).isRelative)
        object.reset(packet.contexts().absolute(*object));
    if (!object)
        throw std::bad_alloc();
    return object;
}

using platform::FileStatus;

namespace {

/// Bytes by which a file is known.
constexpr unsigned kHead = kPageSize;

/// The bytes of a stream that cannot be gone back in, of which the first have been looked at.
class HeadedBuffer : public std::streambuf {
public:
    /// Takes kHead bytes of `rest` at a time, which must outlive this.
    explicit HeadedBuffer(std::streambuf& rest) : m_rest(rest), m_bytes(new char[kHead]) {}
    /// The bytes that were taken last.
    std::string_view head() const { return {eback(), static_cast<std::size_t>(egptr() - eback())}; }

protected:
    int_type underflow() override {
        const auto count = m_rest.sgetn(m_bytes.get(), kHead);
        setg(m_bytes.get(), m_bytes.get(), m_bytes.get() + std::max<std::streamsize>(count, 0));
        return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

private:
    std::streambuf& m_rest;
    std::unique_ptr<char[]> m_bytes; // of which a short stream uses little
};

/// Whether a page behind the first one, which is destroyed, is part of a trace. Of a long file so many are looked at.
bool hasTracePage(std::istream& file) {
    constexpr std::uint64_t kMostPages = 64;
    file.clear();
    file.seekg(0, std::ios::end);
    const std::uint64_t last = pages::numberAt(static_cast<std::uint64_t>(std::streamoff(file.tellg())));
    std::string page(kPageSize, '\0');
    const std::uint64_t step = last / kMostPages + 1;
    for (std::uint64_t at = 1; at <= last; at += step) {
        file.clear();
        file.seekg(static_cast<std::streamoff>(pages::beginOf(at)));
        file.read(page.data(), kPageSize);
        const std::string_view block(page.data(), static_cast<std::size_t>(file.gcount()));
        if (!block.empty() && looksLikeTrace(block))
            return true;
    }
    return false;
}

} // namespace

/// An open file, or a stream in its place.
class TraceFile::Input {
public:
    /// False with errno set.
    bool open(const std::string& path) {
        errno = 0;
        m_file.open(path, std::ios::binary);
        return m_file.is_open();
    }
    std::ifstream& file() { return m_file; }

    /// Takes the first bytes, to look at them. The stream tells whether that has failed.
    std::string_view head(std::istream* stream) {
        m_stream.rdbuf(&m_bytes.emplace(stream ? *stream->rdbuf() : *m_file.rdbuf()));
        m_stream.peek();
        return m_bytes->head();
    }
    /// Goes back to the start of a regular file, without a buffer of its own.
    void rewind() {
        m_file.clear();
        m_file.seekg(0);
        m_stream.rdbuf(m_file.rdbuf());
        m_bytes.reset();
    }
    /// Takes all of a stream, without a look at it.
    void take(std::istream& stream) { m_stream.rdbuf(stream.rdbuf()); }
    std::istream& stream() { return m_stream; }

    void pause() {
        if (!m_file.is_open())
            return;
        m_position = m_file.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in);
        m_file.close();
    }
    /// Opens the file again and goes on where it was.
    bool resume(const std::string& path) {
        return m_file.is_open() || (open(path) && m_file.rdbuf()->pubseekpos(m_position, std::ios::in) == m_position);
    }

private:
    std::ifstream m_file;
    std::optional<HeadedBuffer> m_bytes;
    std::istream m_stream{nullptr};
    std::streampos m_position = 0;
};

struct TraceFile::Binary : TraceAt {
    using TraceAt::TraceAt;

    bool isJoined = false; ///< with a page file
};

struct TraceFile::Table {
    explicit Table(std::istream& stream) : reader(stream, false) {}

    TraceTextReader reader;
    std::string bytes; ///< of the last packet, in the binary form
    std::optional<CTraceCursor> cursor;
};

TraceFile::TraceFile(std::string path, std::istream* stream) : m_stream(stream) {
    m_report.file = std::move(path);
    open();
}

TraceFile::TraceFile(std::string name, std::istream& trace) : m_stream(&trace) {
    m_report.file = std::move(name);
    m_input = platform::makeOwned<Input>();
    m_input->take(trace);
}

TraceFile::~TraceFile() = default;

void TraceFile::fail(std::string reason) const {
    if (m_end == 0)
        throw TraceError(name(), std::move(reason));
    throw TraceError(name(), m_end, std::move(reason));
}

void TraceFile::failToRead() const {
    fail(platform::errorText(EIO));
}

void TraceFile::open() {
    const FileStatus status = m_stream ? FileStatus() : FileStatus::of(name());
    m_isRegular = status.sort == FileStatus::Regular;
    m_input = platform::makeOwned<Input>();
    if (status.sort == FileStatus::Directory)
        fail(platform::errorText(EISDIR));
    if (!m_stream && !m_input->open(name()))
        fail(platform::errorText(platform::openError(name().c_str())));
    const std::string_view head = m_input->head(m_stream);
    if (m_input->stream().bad())
        failToRead();
    FileKind kind = kindOfFile(head);
    if (kind == FileKind::Unknown && m_isRegular && hasTracePage(m_input->file()))
        kind = FileKind::Trace;
    switch (kind) {
    case FileKind::Table:
        if (m_isRegular)
            m_input->rewind();
        m_table = platform::makeOwned<Table>(m_input->stream());
        break;
    case FileKind::PageFile:
        fail(name().ends_with(".page") ? "is the page file of a trace, which is " + name().substr(0, name().rfind('.'))
                                       : "is the page file of a trace");
    case FileKind::Trace:
        // A regular file is opened by the first packet that is asked for: thousands may wait for that.
        if (m_isRegular)
            m_input.reset();
        break;
    case FileKind::Unknown:
        fail("does not look like a trace");
    }
}

void TraceFile::openBinary() {
    if (m_isRegular)
        m_open = openAt(m_end, m_contexts);
    else
        m_open = platform::makeOwned<Binary>(
            platform::makeOwned<Watched<CTraceSourceBufferStream>>(m_watch, m_input->stream()), m_end, m_contexts,
            m_block);
}

platform::Owned<TraceFile::Binary> TraceFile::openAt(std::uint64_t position, const CContexts& contexts) const {
    auto file = platform::makeOwned<Watched<CTraceSourceBufferFile>>(m_watch);
    unsigned got = 0;
    if (!file->open(name().c_str()))
        fail(platform::errorText(file->error()));
    file->CTraceSourceBufferStream::read(nullptr, 0, position, got); // only goes there
    if (!file->good())
        failToRead();
    const bool isJoined = file->is_joined();
    auto open = platform::makeOwned<Binary>(std::move(file), position, contexts, m_block);
    open->isJoined = isJoined;
    return open;
}

bool TraceFile::pause() {
    if (!m_isRegular)
        return m_report.end != TraceEnd::Unread;
    if (m_input)
        m_input->pause();
    if (m_open)
        m_contexts = m_open->cursor.contexts();
    m_open.reset();
    m_cursor = nullptr;
    m_before = m_report.damage;
    m_bytesNoted = 0;
    if (m_isAhead)
        m_end = m_offset;
    m_isAhead = false;
    return true;
}

const TraceTextReader::Error* TraceFile::tableError() const {
    return m_table && m_table->reader.errors() > 0 ? &m_table->reader.firstError() : nullptr;
}

void TraceFile::noteRows() {
    TraceDamage& damage = m_report.damage;
    const std::uint64_t places = m_table->reader.errors();
    if (damage.places == places)
        return;
    if (damage.places == 0)
        damage.first = m_end;
    damage.places = places;
}

PacketPointer TraceFile::nextOfTable() {
    if (m_isRegular && !m_input->resume(name()))
        fail(platform::errorText(platform::openError(name().c_str())));
    m_offset = m_end;
    m_table->reader.peek(); // rows that are wrong may stand before the packet, and behind it
    noteRows();
    PacketPointer packet(m_table->reader.get());
    if (m_input->stream().bad()) // of a text behind the packet there may be more
        failToRead();
    if (packet)
        m_end += packet->StreamSize();
    m_size = m_table->reader.position();
    noteRows();
    if (!packet)
        m_report.end = m_end > 0 ? TraceEnd::NotMarked : TraceEnd::Empty;
    return packet;
}

PacketPointer TraceFile::next() {
    if (m_table)
        return m_report.end == TraceEnd::Unread ? nextOfTable() : nullptr;
    if (!m_isAhead && !advance())
        return nullptr;
    m_isAhead = true; // should memory be short
    PacketPointer packet(m_cursor->packet());
    m_isAhead = false;
    return packet;
}

bool TraceFile::advance() {
    if (m_report.end != TraceEnd::Unread)
        return false;
    if (m_table)
        return advanceInTable();
    if (!m_open)
        openBinary();
    CTraceCursor& cursor = m_open->cursor;
    m_cursor = &cursor;
    if (cursor.next()) {
        m_offset = cursor.offset();
        m_end = cursor.end();
        if (cursor.damage().bytes > m_bytesNoted)
            noteDamage(cursor.damage());
        m_signs.look(cursor);
        return true;
    }
    finish(TraceWalk::of(*m_open));
    return false;
}

void TraceFile::walkRest(detail::PartsWork& work, const TraceShares& shares, const Signs& signs) {
    if (!m_open)
        openBinary();
    // The end of a trace that stands in a page file may be on its way into the trace.
    const std::uint64_t size = m_isRegular && !m_open->isJoined ? m_open->source->size() : 0;
    const OpensTraceBy open(
        [this](std::uint64_t position, const CContexts& contexts) { return openAt(position, contexts); });
    TraceShares own = shares;
    if (own.threads == 0)
        own.threads = m_threads;
    const TraceWalk walk = detail::walkInParts(*m_open, size, open, work, own);
    m_signs = signs;
    if (walk.hasFailed || walk.end < own.until) {
        finish(walk);
        return;
    }
    m_offset = m_end = walk.end;
    noteDamage(walk.damage);
    if (m_open->cursor.end() == walk.end)
        return;
    m_contexts = walk.contexts; // others have come here
    m_before = m_report.damage;
    m_bytesNoted = 0;
    m_open.reset();
    m_cursor = nullptr;
}

bool TraceFile::advanceInTable() {
    const PacketPointer packet = nextOfTable();
    if (!packet)
        return false;
    std::string& bytes = m_table->bytes;
    bytes.resize(packet->StreamSize());
    packet->write(bytes.data(), static_cast<unsigned>(bytes.size()));
    const CContexts contexts = m_table->cursor ? m_table->cursor->contexts() : CContexts();
    m_cursor = &m_table->cursor.emplace(bytes, m_offset, contexts);
    return m_table->cursor->next();
}

void TraceFile::Signs::lookAtFrame(const CTraceCursor& packet) {
    const tagTCode code = packet.TraceCode();
    if (!factsOf(code).isFrame)
        return;
    if (code == TraceDisabled) {
        if (!isFrameOpen && !isEnded)
            closedAt = packet.end();
        closeFrame(packet.end());
    }
    const auto enabled = packet.as<CTraceEnabled>();
    isFrameOpen = enabled.has_value();
    frameEnd = enabled && enabled->FrameLen() != kUnknown64 ? packet.offset() + enabled->FrameLen() : 0;
    isEnded = !isFrameOpen;
}

void TraceFile::Signs::closeFrame(std::uint64_t end) {
    if (frameEnd > end)
        lacking += frameEnd - end;
}

void TraceFile::Signs::join(const Signs& next) {
    if (next.closedAt > 0)
        closeFrame(next.closedAt);
    const Signs before = *this;
    *this = next;
    lacking += before.lacking;
    if (before.isFrameOpen || before.isEnded)
        closedAt = before.closedAt;
    if (!next.isFrameOpen && !next.isEnded) { // no packet tells of a frame
        frameEnd = before.frameEnd;
        isFrameOpen = before.isFrameOpen;
        isEnded = before.isEnded;
    }
}

void TraceFile::finish(const TraceWalk& walk) {
    m_offset = m_end = walk.end;
    noteDamage(walk.damage);
    if (walk.hasFailed)
        failToRead();
    const tagTCode code = walk.cutCode;
    m_size = m_offset + walk.left;
    m_report.endOffset = m_offset;
    const bool mayGoOn = m_signs.textOf != Invalid && m_signs.textEnd == m_end;
    if (mayGoOn && (m_signs.breaksOff || code == CharString)) {
        m_report.end = TraceEnd::InText;
        m_report.cutKind = CTCodeInfo::TCodeToName(m_signs.textOf);
    } else if (walk.left > 0) {
        m_report.end = TraceEnd::InPacket;
        m_report.cutKind = CTCodeInfo::TCodeIsValid(code) ? CTCodeInfo::TCodeToName(code) : "";
    } else if (m_signs.isFrameOpen) {
        m_report.end = m_open->isJoined ? TraceEnd::Recording : TraceEnd::Missing;
    } else {
        m_report.end = m_signs.isEnded ? TraceEnd::Complete : m_end > 0 ? TraceEnd::NotMarked : TraceEnd::Empty;
    }
    m_report.lacking = m_signs.lacking;
    if (m_report.end >= TraceEnd::Missing && m_signs.frameEnd > m_size)
        m_report.missing = m_signs.frameEnd - m_size;
    m_open.reset();
    m_cursor = nullptr;
}

void TraceFile::noteDamage(const TraceDamage& damage) {
    m_report.damage = m_before;
    m_report.damage.join(damage);
    m_bytesNoted = damage.bytes;
}

} // namespace Quorvex
