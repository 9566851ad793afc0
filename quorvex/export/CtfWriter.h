#pragma once

#include "quorvex/analysis/Directory.h"
#include "quorvex/export/ViewerWriter.h"
#include "quorvex/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

/// Writes a trace in the Common Trace Format, version 1.8: an event for each packet that defines, undefines or happens,
/// with all its fields and its text. Such a trace is a directory: the stream that is given becomes a file of any name
/// in it, and metadata() the file `metadata`; there must be no others.
///
/// Events bear the name of their kind. Fields are as format.md tells, with these differences: the tick is the time of
/// the event, in ticks from the first known one, of which `env` and the clock tell; identifiers of functions,
/// processes, counters and so on are enumerations, whose labels are the names; data of several bytes is a row with the
/// lowest byte first; a text is `text`, with U+FFFD in place of bytes that are no UTF-8 and of zeros.
class QUORVEX_API CCtfWriter : public CViewerWriter {
public:
    explicit CCtfWriter(std::ostream& out, ViewerOptions options = {});
    ~CCtfWriter() override;

    /// The description of the stream, once that is written.
    std::string metadata() const;

protected:
    bool show(const CPacket& packet, std::uint64_t time) override;
    void end(std::uint64_t time) override;
    bool writeFile() override { return m_isWritten; }

private:
    class Fields;

    /// Events of one kind with the same fields.
    struct EventClass {
        tagTCode kind;
        std::string fields; ///< as the metadata declares them
    };

    void endPacket();
    // There is room for what is appended.
    template <class T> void append(T value);
    void append(const char* bytes, std::size_t count);

    std::vector<char> m_packet; ///< room for what is not yet in the stream,
    std::size_t m_size = 0;     ///< of which that much is in use
    std::uint64_t m_begin = 0;  ///< its times
    std::uint64_t m_end = 0;
    std::uint64_t m_packets = 0;
    bool m_isWritten = true; ///< all before
    std::vector<EventClass> m_classes;
    Directory<std::uint32_t, std::uint16_t> m_ids; ///< of classes, by kind and number of fields
    /// What fields refer to and how their type is called, null if it has no name; by the address of their names.
    Directory<std::uintptr_t, std::pair<TextSort, const char*>> m_named;
};

} // namespace Quorvex
