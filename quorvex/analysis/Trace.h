#pragma once

/// Traces for those who want to look at one and at nothing else:
///
///     for (const auto& packet : Quorvex::trace("thread_4711.qvx")) {
///         if (packet.kind() == "FunctionEnter")
///             std::cout << packet.nanoseconds().value_or(0) << ' ' << packet.name() << '\n';
///     }
///
/// Whatever the form of a trace (plain or in pages, absolute or relative, a table), its packets come in the absolute
/// form, and of several traces in the order of their ticks. What frames a trace, what pages need, and what restates
/// contexts is left out.

#include "quorvex/analysis/TraceReport.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/Owned.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvex {

class CPacket;
namespace detail {
struct TraceFacts;
}

/// What has its name as a text, as a std::filesystem::path does.
template <class Path>
concept PathLike = requires(const Path& path) {
    { path.string() } -> std::convertible_to<std::string>;
};

/// The name of a file: a text, or a std::filesystem::path.
class FileName {
public:
    /// A text.
    template <std::convertible_to<std::string_view> Text>
    FileName(const Text& name) : m_name(static_cast<std::string_view>(name)) {}
    /// A path.
    template <PathLike Path> FileName(const Path& path) : m_name(path.string()) {}

    const std::string& text() const { return m_name; } ///< the name

private:
    std::string m_name;
};

/// A container of names of files.
template <class Files>
concept FileNames = !std::convertible_to<const Files&, FileName> && requires(const Files& files) {
    FileName(*files.begin());
};

/// A packet of a trace, in the absolute form. It can be moved away and kept for any time, also when the trace that it
/// came from is gone; a packet that was moved from may only be assigned to or destroyed. Used by one thread at a time,
/// with all other packets of its trace.
class QUORVEX_API TracePacket {
public:
    TracePacket() = default;
    TracePacket(TracePacket&&) noexcept;
    TracePacket& operator=(TracePacket&&) noexcept;
    ~TracePacket();

    /// The name of its kind, of which `qvx kinds` has the list: "FunctionEnter". Valid for ever.
    std::string_view kind() const;
    /// Its time in ticks of the clock that the trace was recorded by; none where it is not known.
    std::optional<std::uint64_t> tick() const;
    /// The same in nanoseconds since the clock's tick 0, rounded down. None where the tick is not known, or the trace
    /// has not told by now how many ticks are a second; recorded programs tell it first of all. What would be more than
    /// 64 bits is the greatest number of them.
    std::optional<std::uint64_t> nanoseconds() const;
    /// The core on which it happened (hardware context); none where it is not known, or the kind does not tell.
    std::optional<std::uint32_t> core() const;
    /// The thread in which it happened (software context); none where it is not known, or the kind does not tell.
    std::optional<std::uint32_t> thread() const;
    /// The number of what it is about: of the function that is entered, the counter that has a value. Of a kind that
    /// is about a part of a state machine, that part's number. None for a kind that is about nothing with a number, and
    /// for a call of no function (all ones).
    std::optional<std::uint32_t> id() const;
    /// The name that the trace has given by now to what the packet is about, or gives by this packet; empty where there
    /// is none. UTF-8 if the traced program's is. Valid until the next packet is read.
    std::string_view name() const;
    /// The text behind the packet: that of a message, the name of a definition; empty where there is none. Valid as
    /// long as the packet.
    std::string_view text() const;
    /// A number of its context or payload by the name that `qvx kinds` shows: field("DataAddr"). Of several of one
    /// name, the first; of bytes, the first eight at most, lowest first. None where the kind has no such field or it is
    /// not there or not known.
    std::optional<std::uint64_t> field(std::string_view name) const;

    /// Which of the files it comes from: the first is 0.
    std::size_t file() const { return m_file; }
    /// Where in its file it begins, in bytes. Of a table, where it would in the binary form of the rows that were read.
    std::uint64_t offset() const { return m_offset; }
    /// The packet as an object of its class, which packetAs (quorvex/packets/PacketKinds.h) tells. Valid as long as
    /// this.
    const CPacket& packet() const { return *m_packet; }

private:
    friend class Trace;

    CPacket* m_packet = nullptr;
    std::shared_ptr<detail::TraceFacts> m_facts; ///< names and clocks of the trace
    std::size_t m_file = 0;
    std::uint64_t m_offset = 0;
};

/// How a trace is read.
struct TraceOptions {
    /// What cannot be read is an error: TraceError is thrown at damage, and where the end is missing.
    bool strict = false;
};

/// Packets of one trace file, or of several in the order of ticks: a range to be walked through once. That is the order
/// of time as long as all files are of one clock; where their clocks differ, nanoseconds jump back and forth. Each file
/// is a process of its own where it gives a number another name than the files before it; otherwise names hold for all.
///
/// However many files there are, no more than 64 are open at a time. Of more files, memory holds about half a million
/// packets, but at least 32 a file, and some kilobytes a file. A file is not changed. What is damaged is stepped over
/// and counted in reports().
///
/// Whatever fails throws a TraceError (quorvex/analysis/TraceError.h), which is a std::exception whose what() begins
/// with the name of the file: making a trace of files that cannot be opened or are no traces, and reading on where that
/// is not possible. Lack of memory is another std::exception. Used by one thread at a time, with its packets.
class QUORVEX_API Trace {
public:
    explicit Trace(const std::vector<FileName>& files, TraceOptions options = {});
    Trace(Trace&&) noexcept;
    Trace& operator=(Trace&&) noexcept;
    ~Trace();

    /// Goes from packet to packet, which are there one at a time.
    class iterator {
    public:
        using iterator_concept = std::input_iterator_tag; ///< for the standard library, as the next two
        using difference_type = std::ptrdiff_t;           ///< of nothing: packets are not counted
        using value_type = TracePacket;                   ///< what it stands at

        iterator() = default;
        /// The packet may be moved away, if it is to be kept.
        TracePacket& operator*() const { return m_trace->m_packet; }
        TracePacket* operator->() const { return &m_trace->m_packet; }
        iterator& operator++() {
            m_isAtEnd = !m_trace->read();
            return *this;
        }
        void operator++(int) { ++*this; }
        bool operator==(std::default_sentinel_t) const { return m_isAtEnd; }

    private:
        friend class Trace;
        explicit iterator(Trace& trace) : m_trace(&trace) { ++*this; }

        Trace* m_trace = nullptr;
        bool m_isAtEnd = true;
    };

    /// Reads the next packet; a trace can be left and gone on with by another loop.
    iterator begin() { return iterator(*this); }
    std::default_sentinel_t end() const { return {}; }

    /// How reading went so far, file by file.
    std::vector<TraceReport> reports() const;

private:
    struct Reading;

    /// Reads the next packet; false at the end.
    bool read();

    platform::Owned<Reading> m_reading;
    TracePacket m_packet;
};

/// The packets of a trace file, or of several that are given as any container of names.
inline Trace trace(const FileName& file, TraceOptions options = {}) {
    return Trace({file}, options);
}
inline Trace trace(std::initializer_list<FileName> files, TraceOptions options = {}) {
    return Trace(files, options);
}
/// @copydoc trace
template <FileNames Files> Trace trace(const Files& files, TraceOptions options = {}) {
    return Trace(std::vector<FileName>(files.begin(), files.end()), options);
}

} // namespace Quorvex
