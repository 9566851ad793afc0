#pragma once

#include "quorvex/analysis/Directory.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/export/CounterCell.h"
#include "quorvex/export/TrackWriter.h"

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Quorvex {

/// The tracks and labels that there are, and their names, which are known in the end.
class CTrackWriter::Names {
public:
    explicit Names(CTrackWriter& writer) : m_writer(writer) {}

    static constexpr std::uint32_t kNone = ~std::uint32_t{0}; ///< no label, track or process

    /// What gives a slice or an instant its name.
    struct LabelKey {
        enum class Of : std::uint8_t { Name, Interrupt, Thread, Kind } of;
        TextSort sort = TextSort::None; ///< of a Name
        std::uint64_t number;

        bool operator==(const LabelKey&) const = default;
        std::uint64_t hash() const {
            return number << 16 ^ number >> 48 ^ std::uint64_t(of) << 8 ^ std::uint64_t(sort);
        }
    };

    std::uint32_t labelOf(LabelKey key) {
        const std::uint32_t* const known = m_labelsOf.find(key);
        return known ? *known : newLabel(key);
    }
    std::uint32_t labelOf(TextSort sort, std::uint64_t number) { return labelOf({LabelKey::Of::Name, sort, number}); }
    /// That of a function.
    [[gnu::always_inline]] std::uint32_t functionOf(std::uint32_t number) {
        const std::uint32_t* const known = m_functions.find(number);
        return known ? *known : m_functions[number] = labelOf(TextSort::Function, number);
    }
    /// The group of the threads in a process, by its label.
    std::uint32_t groupOf(std::uint32_t process);

    /// A new track of a core or thread.
    std::uint32_t addTrack(Sort sort, std::uint32_t number, std::uint32_t group = 0);
    /// A new one of an instance of a state machine.
    std::uint32_t addStates(std::uint64_t instance, std::uint64_t machine);
    /// That of what has that number among those of a sort of name, with something behind the name; or of what has that
    /// name by itself.
    std::uint32_t trackOf(Sort sort, TextSort named, std::uint64_t number, std::string suffix);
    /// The same for a value: that of the key, which has the sort of the track, without a look at the suffix, which
    /// `make` makes, where the track is not new.
    template <class Make> std::uint32_t trackOf(const ValueKey& key, TextSort named, Make make) {
        const std::uint32_t* const known = m_known.find(key);
        return known ? *known : keep(key, trackOf(Sort(key.sort), named, key.number, make()));
    }
    Sort sortOf(std::uint32_t track) const { return m_tracks[track].track.sort; }
    /// A value on it is a text.
    void hasText(std::uint32_t track) { m_tracks[track].hasText = true; }

    /// Names all.
    void finish();

    std::vector<Track> tracks;           ///< once all are named
    std::vector<std::string> labels;     ///< likewise
    std::vector<std::string> groups{""}; ///< likewise

private:
    struct NamedTrack {
        Track track;
        TextSort sort = TextSort::None; ///< of what gives the name
        std::uint64_t id = 0;           ///< its number
        std::uint64_t owner = 0;        ///< of a state machine
        std::string suffix = {};
        bool hasText = false; ///< among its values
    };

    std::uint32_t newLabel(const LabelKey& key);
    /// Has trackOf() find it by the key.
    std::uint32_t keep(const ValueKey& key, std::uint32_t track);
    std::uint32_t add(NamedTrack track);
    std::string nameOf(TextSort sort, std::uint64_t number) const;
    std::string textOf(const LabelKey& label) const;
    std::string nameOfGroup(std::uint32_t group) const;
    std::string nameOf(const NamedTrack& of) const;

    CTrackWriter& m_writer;
    std::vector<NamedTrack> m_tracks;
    std::vector<LabelKey> m_labels;
    Directory<LabelKey, std::uint32_t> m_labelsOf;
    Directory<std::uint32_t, std::uint32_t> m_functions; ///< those of m_labels that are looked up most often
    Directory<std::uint32_t, std::uint32_t> m_groupsOf;  ///< by the labels of processes
    std::vector<std::uint32_t> m_groups;                 ///< these labels, of the groups from 1 on
    Directory<ValueKey, std::uint32_t> m_known;          ///< those of m_byName that are looked up often
    std::map<std::tuple<Sort, std::uint64_t, std::string>, std::uint32_t> m_byName;
};

} // namespace Quorvex
