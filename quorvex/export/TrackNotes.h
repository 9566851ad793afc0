#pragma once

#include "quorvex/export/TrackNames.h"
#include "quorvex/export/TrackWriter.h"
#include "quorvex/format/Digits.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quorvex {

/// What happens, noted packet by packet in the body until all names and forms are known, and then told to the writer.
class CTrackWriter::Notes {
public:
    Notes(CTrackWriter& writer, const Names& names) : m_writer(writer), m_names(names) {}

    // What the next note has beside the rest: first a name that is its own, then its fields.
    void setName(std::string_view name);
    void addField(std::string_view name, Form form, std::uint64_t number);
    void addField(std::string_view name, std::string_view text);

    /// Notes a slice's begin or end.
    void slice(Type type, std::uint32_t track, std::uint32_t label, std::uint64_t time, bool isSupplied = false) {
        put({time, track, label, type, Form::None, isSupplied, !m_more.empty()});
    }
    void instant(std::uint32_t track, std::uint32_t label, std::uint64_t time) {
        put({time, track, label, Type::Instant, Form::None, false, true});
    }
    /// Notes a value, which the thread of track `teller` tells.
    void value(std::uint32_t track, std::uint32_t teller, std::uint64_t time, std::uint64_t number) {
        m_more.assign(reinterpret_cast<const char*>(&number), sizeof number);
        put({time, track, teller, Type::Value, Form::Unsigned, false, true});
    }
    void value(std::uint32_t track, std::uint32_t teller, std::uint64_t time, std::string_view text) {
        m_more = text;
        put({time, track, teller, Type::Value, Form::Text, false, true});
    }

    /// All has been noted.
    void finish();
    /// Tells the writer of all that has been noted; false where it cannot be read again.
    bool tell();

private:
    /// How a note begins in the body. Where it has more, behind it stands how many bytes, then these.
    struct Note {
        std::uint64_t time; ///< in ticks
        std::uint32_t track;
        std::uint32_t label; ///< of a value, the track of the thread that tells it
        std::uint8_t what;   ///< type, form of a value, whether an end is supplied, and whether there is more

        static constexpr std::size_t kSize = 17; ///< in the body
        static constexpr std::uint8_t kIsSupplied = 0x40;
        static constexpr std::uint8_t kHasMore = 0x80;

        Note() = default;
        Note(std::uint64_t itsTime, std::uint32_t itsTrack, std::uint32_t itsLabel, Type type, Form form,
             bool isSupplied, bool hasMore)
            : time(itsTime),
              track(itsTrack),
              label(itsLabel),
              what(static_cast<std::uint8_t>(unsigned(type) | unsigned(form) << 2 | (isSupplied ? kIsSupplied : 0U) |
                                             (hasMore ? kHasMore : 0U))) {}
        Type type() const { return Type(what & 3); }
        Form form() const { return Form(what >> 2 & 7); }
        bool isSupplied() const { return (what & kIsSupplied) != 0; }
        bool hasMore() const { return (what & kHasMore) != 0; }
    };
    static_assert(offsetof(Note, what) == Note::kSize - 1);
    /// The notes of one track, where they are told by track.
    struct OfTrack {
        std::string block = {};                                           ///< those that are not in the body
        std::vector<std::pair<std::uint64_t, std::uint32_t>> blocks = {}; ///< those that are: where, and bytes
    };
    /// What is noted of a track by itself before it goes to the body.
    static constexpr std::size_t kBlockSize = 0x1000;

    void put(const Note& note) {
        const auto more = static_cast<std::uint32_t>(m_more.size());
        const bool hasMore = note.hasMore();
        const auto putAt = [&](char* to) {
            std::memcpy(to, &note, Note::kSize);
            if (hasMore) {
                std::memcpy(to + Note::kSize, &more, sizeof more);
                std::memcpy(to + Note::kSize + sizeof more, m_more.data(), more);
            }
        };
        const std::size_t size = Note::kSize + (hasMore ? sizeof more + more : 0);
        if (!m_writer.m_wishes.byTrack) {
            char* const to = m_writer.bodyRoom(size);
            putAt(to);
            m_writer.bodyEnds(to + size);
        } else {
            if (note.track >= m_ofTracks.size())
                m_ofTracks.resize(note.track + std::size_t{1});
            OfTrack& its = m_ofTracks[note.track];
            its.block.resize(its.block.size() + size);
            putAt(its.block.data() + its.block.size() - size);
            if (its.block.size() >= kBlockSize)
                flush(its);
        }
        if (hasMore)
            m_more.clear();
    }
    void flush(OfTrack& its);
    bool tellOf(std::uint64_t from, std::uint64_t size);
    void tell(const Note& note, std::string_view more);
    void tellValue(const Note& note, Fact& fact);
    void endText(std::uint32_t track, std::string& open, std::uint64_t time, bool isSupplied);

    CTrackWriter& m_writer;
    const Names& m_names;
    std::string m_more;                          ///< of the next note
    std::vector<OfTrack> m_ofTracks;             ///< by their numbers
    std::map<std::uint32_t, std::string> m_open; ///< texts that are shown as slices, by tracks
    std::vector<char> m_read;                    ///< kept for its memory
    char m_digits[kMostDigits];
};

} // namespace Quorvex
