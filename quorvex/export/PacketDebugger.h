#pragma once

#include "quorvex/format/Fields.h"
#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"
#include "quorvex/stream/TraceSink.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace Quorvex {

/// Prints packets in words: a line that names the kind, then one line a field with its label, a tab and its value, then
/// an empty line.
///
///     FunctionEnter (0x92): enter function
///     Tick:	210
///     Hardware Context:	1
///     ...
///     Function ID:	0x00000007
///
/// Identifiers and addresses are hexadecimal, data and masks are too, with the highest byte first. What is unknown says
/// so. Texts stand in double quotes, with C escapes for what cannot be printed. The stream must outlive the sink.
class QUORVEX_API CPacketDebugger : public CTraceSink {
public:
    /// With `withBytes`, the bytes of the packet as on the wire follow its fields, 16 a line.
    explicit CPacketDebugger(std::ostream& stream, bool withBytes = false) : m_stream(stream), m_withBytes(withBytes) {}
    virtual ~CPacketDebugger();

    bool good() override { return m_stream.good(); }
    void clear() override { m_stream.clear(); }
    bool put(CPacket* packet) override;
    bool forward(std::list<CPacket*>& packets) override;
    bool forward(CPacket*& packet) override;
    std::uint64_t out_size() override { return 0; }
    void flush() override { m_stream.flush(); }

    /// Prints a packet that stands at that place of its trace and takes `size` bytes there: less than its StreamSize()
    /// where the CharString packets behind it break off.
    bool put(std::uint64_t offset, CPacket& packet, std::uint64_t size = kUnknown64);

private:
    class Fields;
    /// What fields are called, by their names, each of which stands in one place of memory.
    class Labels {
    public:
        std::string_view of(const char* field);

    private:
        struct Label {
            const char* field = nullptr;
            std::string_view text;
        };
        Label m_labels[128]; ///< those that were asked for last
    };

    /// Writes what m_text holds, and the packet.
    bool print(CPacket& packet, std::uint64_t size);
    /// Puts the packet behind m_text.
    bool describe(CPacket& packet, std::uint64_t size);

    std::ostream& m_stream;
    bool m_withBytes;
    std::string m_text; ///< kept for its memory
    Labels m_labels;
};

} // namespace Quorvex
