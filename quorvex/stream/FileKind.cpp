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
        return left < CPacketHeader::Len() ? at > 0 || left == 0 : isPacket(at);
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
    static constexpr std::size_t kCodes = 256, kLengths = 256;

    unsigned at(std::size_t offset) const { return static_cast<unsigned char>(m_bytes[offset]); }
    tagTCode codeAt(std::size_t offset) const { return tagTCode(at(offset)); }

    /// Whether a header stands there whose kind can have the length that it tells.
    bool isPacket(std::size_t start) {
        if (m_bytes.size() - start < CPacketHeader::Len())
            return false;
        const tagTCode code = codeAt(start);
        unsigned length = at(start + 1);
        if (const KindFacts& kind = factsOf(code); kind.countsText(length)) {
            const unsigned text = kind.length;
            const std::size_t textAt = start + CPacketHeader::Len() + text;
            if (textAt + CPacketHeader::Len() > m_bytes.size() || codeAt(textAt) != CharString ||
                text + CPacketHeader::Len() + at(textAt + 1) != length)
                return false;
            length = text;
        }
        return canHave(code, static_cast<std::uint8_t>(length));
    }

    /// Asks the factory, once for each answer: a refusal takes it long.
    static bool canHave(tagTCode code, std::uint8_t length) {
        enum : signed char { NotAsked, Yes, No };
        static std::atomic<signed char> answers[kCodes][kLengths];
        signed char answer = answers[code][length].load(std::memory_order_relaxed);
        if (answer == NotAsked) {
            answer = isBuilt(code, length) ? Yes : No;
            answers[code][length].store(answer, std::memory_order_relaxed);
        }
        return answer == Yes;
    }

    static bool isBuilt(tagTCode code, std::uint8_t length) {
        const char zeros[kLengths] = {};
        unsigned consumed = 0;
        try {
            const std::unique_ptr<CPacket> packet(
                CPacketFactory::getCPacket(CPacketHeader(code, length), zeros, length, consumed));
            return packet && consumed == length;
        } catch (const CQVXException& exception) {
            if (isOutOfMemory(exception))
                throw;
            return false;
        }
    }

    /// Moves behind a whole packet.
    bool step(std::size_t& start) {
        if (!isPacket(start) || m_bytes.size() - start < CPacketHeader::Len() + at(start + 1))
            return false;
        start += CPacketHeader::Len() + at(start + 1);
        return true;
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
