#include "quorvex/stream/FileKind.h"

#include "quorvex/factory/PacketFactory.h"
#include "quorvex/format/Exception.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/PageFile.h"
#include "quorvex/stream/TraceTextReader.h"

#include <algorithm>
#include <atomic>
#include <memory>

namespace Quorvex {

namespace {

/// A longer text, of lines that are alike, may be packets to its very end by chance.
constexpr std::size_t kShort = 4096;

constexpr std::size_t kCodes = 256, kLengths = 256;

unsigned fieldsByFactory(tagTCode code, std::uint8_t length) {
    const char zeros[kLengths] = {};
    unsigned consumed = 0;
    try {
        const std::unique_ptr<CPacket> packet(
            CPacketFactory::getCPacket(CPacketHeader(code, length), zeros, length, consumed));
        return packet ? consumed : detail::kNoFields;
    } catch (const CQVXException& exception) {
        if (isOutOfMemory(exception))
            throw;
        return detail::kNoFields;
    }
}

/// Whether a header stands there whose kind can have the length that it tells.
bool canBegin(std::string_view bytes) {
    const auto at = [bytes](std::size_t offset) { return static_cast<unsigned char>(bytes[offset]); };
    if (bytes.size() < CPacketHeader::Len())
        return false;
    const tagTCode code = tagTCode(at(0));
    unsigned length = at(1);
    if (const KindFacts& kind = factsOf(code); kind.countsText(length)) {
        const unsigned text = kind.length;
        const std::size_t textAt = CPacketHeader::Len() + text;
        if (textAt + CPacketHeader::Len() > bytes.size() || at(textAt) != CharString ||
            text + CPacketHeader::Len() + at(textAt + 1) != length)
            return false;
        length = text;
    }
    return detail::fieldsOf(code, static_cast<std::uint8_t>(length)) == length;
}

/// Walks packets of any bytes by their headers.
class Walk {
public:
    explicit Walk(std::string_view bytes) : m_bytes(bytes) {}

    /// Whether there are packets alone from the start to the end of the bytes.
    bool isWhole() {
        std::size_t at = 0;
        while (step(at)) {
        }
        // The last one may be cut, as long as there is enough to tell.
        const std::size_t left = m_bytes.size() - at;
        return left < CPacketHeader::Len() ? at > 0 || left == 0 : canBegin(m_bytes.substr(at));
    }

    /// The same, none of which is cut.
    bool isComplete() {
        std::size_t at = 0;
        while (step(at)) {
        }
        return at == m_bytes.size();
    }

    /// How many bytes belong to runs that are no chance.
    std::size_t countRuns() {
        std::size_t count = 0;
        for (std::size_t start = 0; start < m_bytes.size();) {
            std::size_t end = start;
            if (isRun(end)) {
                while (step(end)) {
                }
                count += end - start;
                start = end;
            } else {
                ++start;
            }
        }
        return count;
    }

private:
    unsigned at(std::size_t offset) const { return static_cast<unsigned char>(m_bytes[offset]); }
    tagTCode codeAt(std::size_t offset) const { return tagTCode(at(offset)); }

    /// Moves behind a whole packet.
    bool step(std::size_t& start) {
        const unsigned size = detail::sizeOfPacket(m_bytes.substr(start));
        start += size;
        return size > 0;
    }

    /// Whether the packets from there on are no chance; moves behind those that tell.
    bool isRun(std::size_t& start) {
        unsigned withFields = 0;
        tagTCode first = Invalid;
        bool isMixed = false;
        for (unsigned packets = 0; packets < 8; ++packets) {
            const std::size_t before = start;
            if (!step(start))
                break;
            const tagTCode code = codeAt(before);
            if (code == Fill || code == CharString || at(before + 1) == 0)
                continue;
            first = withFields++ == 0 ? code : first;
            isMixed = isMixed || code != first;
        }
        return withFields >= 4 && isMixed;
    }

    std::string_view m_bytes;
};

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 && (byte < '\t' || byte > '\r') && byte != 0x1B;
}

} // namespace

// Asks the factory, once for each answer: a refusal takes it long.
unsigned detail::fieldsOf(tagTCode code, std::uint8_t length) {
    static std::atomic<std::uint16_t> answers[kCodes][kLengths]; // one more than is answered
    std::uint16_t answer = answers[code][length].load(std::memory_order_relaxed);
    if (answer == 0) {
        answer = static_cast<std::uint16_t>(fieldsByFactory(code, length) + 1);
        answers[code][length].store(answer, std::memory_order_relaxed);
    }
    return answer - 1U;
}

unsigned detail::sizeOfPacket(std::string_view bytes) {
    if (!canBegin(bytes))
        return 0;
    const unsigned size = CPacketHeader::Len() + static_cast<unsigned char>(bytes[1]);
    return size <= bytes.size() ? size : 0;
}

FileKind kindOfFile(std::string_view start) {
    return detail::isPageFile(start)                ? FileKind::PageFile
           : TraceTextReader::looksLikeTable(start) ? FileKind::Table
           : looksLikeTrace(start)                  ? FileKind::Trace
                                                    : FileKind::Unknown;
}

bool looksLikeTrace(std::string_view block) {
    if (block.empty())
        return true;
    Walk walk(block);
    if (std::ranges::none_of(block, isControl))
        return block.size() <= kShort && walk.isComplete();
    return walk.isWhole() || walk.countRuns() >= block.size() / 4 + 1;
}

} // namespace Quorvex
