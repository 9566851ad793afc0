#include "quorvex/export/TrackNotes.h"

#include <algorithm>

namespace Quorvex {

namespace {

constexpr std::size_t kReadAtOnce = 0x10000;

template <class T> void appendRaw(std::string& to, const T& value) {
    to.append(reinterpret_cast<const char*>(&value), sizeof value);
}
template <class T> T takeRaw(std::string_view& from) {
    T value;
    std::memcpy(&value, from.data(), sizeof value);
    from.remove_prefix(sizeof value);
    return value;
}
void appendText(std::string& to, std::string_view text) {
    appendRaw(to, static_cast<std::uint32_t>(text.size()));
    to += text;
}
std::string_view takeText(std::string_view& from) {
    const auto size = takeRaw<std::uint32_t>(from);
    const std::string_view text = from.substr(0, size);
    from.remove_prefix(size);
    return text;
}

/// What a field begins with: how long its name is, the name, and its form.
void appendHead(std::string& to, std::string_view name, CTrackWriter::Form form) {
    to += static_cast<char>(name.size());
    to += name;
    to += static_cast<char>(form);
}

} // namespace

void CTrackWriter::Notes::setName(std::string_view name) {
    appendText(m_more, name);
}

void CTrackWriter::Notes::addField(std::string_view name, Form form, std::uint64_t number) {
    appendHead(m_more, name, form);
    appendRaw(m_more, number);
}

void CTrackWriter::Notes::addField(std::string_view name, std::string_view text) {
    appendHead(m_more, name, Form::Text);
    appendText(m_more, text);
}

CTrackWriter::Field CTrackWriter::nextField(std::string_view& rest) {
    Field field;
    const auto size = static_cast<unsigned char>(rest[0]);
    field.name = rest.substr(1, size);
    field.form = static_cast<Form>(rest[1U + size]);
    rest.remove_prefix(2U + size);
    if (field.form == Form::Text)
        field.text = takeText(rest);
    else
        field.number = takeRaw<std::uint64_t>(rest);
    return field;
}

void CTrackWriter::Notes::flush(OfTrack& its) {
    if (its.block.empty())
        return;
    its.blocks.emplace_back(m_writer.out_size(), static_cast<std::uint32_t>(its.block.size()));
    char* const to = m_writer.bodyRoom(its.block.size());
    std::memcpy(to, its.block.data(), its.block.size());
    m_writer.bodyEnds(to + its.block.size());
    its.block.clear();
}

void CTrackWriter::Notes::finish() {
    for (OfTrack& its : m_ofTracks)
        flush(its);
}

bool CTrackWriter::Notes::tell() {
    if (!m_writer.m_wishes.byTrack) {
        const bool isRead = tellOf(0, m_writer.out_size());
        for (auto& [track, text] : m_open)
            endText(track, text, m_writer.duration(), true);
        return isRead;
    }
    m_ofTracks.resize(m_names.tracks.size());
    for (std::uint32_t track = 0; track < m_ofTracks.size(); ++track) {
        m_writer.startTrack(track);
        for (const auto& [from, size] : m_ofTracks[track].blocks) {
            if (!tellOf(from, size))
                return false;
        }
        m_writer.endTrack(track);
    }
    return true;
}

bool CTrackWriter::Notes::tellOf(std::uint64_t from, std::uint64_t size) {
    std::size_t kept = 0; // of a note that has been read in part
    while (size > 0) {
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(size, kReadAtOnce));
        m_read.resize(std::max(m_read.size(), kept + count));
        if (!m_writer.readBody(from, m_read.data() + kept, count))
            return false;
        from += count;
        size -= count;
        std::string_view notes(m_read.data(), kept + count);
        while (notes.size() >= Note::kSize) {
            Note note;
            std::memcpy(&note, notes.data(), Note::kSize);
            std::size_t whole = Note::kSize;
            std::string_view more;
            if (note.hasMore()) {
                std::string_view rest = notes.substr(whole);
                if (rest.size() < sizeof(std::uint32_t))
                    break;
                const auto moreSize = takeRaw<std::uint32_t>(rest);
                if (rest.size() < moreSize)
                    break;
                more = rest.substr(0, moreSize);
                whole += sizeof moreSize + moreSize;
            }
            tell(note, more);
            notes.remove_prefix(whole);
        }
        kept = notes.size();
        std::memmove(m_read.data(), notes.data(), kept);
    }
    return true;
}

void CTrackWriter::Notes::tell(const Note& note, std::string_view more) {
    Fact fact{.type = note.type(),
              .track = note.track,
              .label = note.label,
              .name = {},
              .time = m_writer.nanoseconds(note.time),
              .more = more,
              .isSupplied = note.isSupplied()};
    if (fact.type == Type::Value)
        return tellValue(note, fact);
    fact.name = note.label == kNoLabel ? takeText(fact.more) : std::string_view(m_names.labels[note.label]);
    m_writer.write(fact);
}

void CTrackWriter::Notes::tellValue(const Note& note, Fact& fact) {
    const Form form = m_names.tracks[note.track].form;
    fact.teller = std::exchange(fact.label, kNoLabel);
    std::string_view more = std::exchange(fact.more, {});
    if (note.form() == Form::Text) {
        fact.value = {"value", Form::Text, 0, more};
    } else {
        const auto number = takeRaw<std::uint64_t>(more);
        fact.value = {"value", form, number};
        if (form == Form::Text)
            fact.value.text = {m_digits, putDecimal(m_digits, number)};
    }
    if (form != Form::Text || !m_writer.m_wishes.textsAsSlices)
        return m_writer.write(fact);
    std::string& open = m_open[note.track];
    endText(note.track, open, fact.time, false);
    open = fact.value.text;
    fact.type = Type::Begin;
    fact.name = open;
    m_writer.write(fact);
}

/// Ends what is shown of a value that is a text.
void CTrackWriter::Notes::endText(std::uint32_t track, std::string& open, std::uint64_t time, bool isSupplied) {
    if (!open.empty())
        m_writer.write({.type = Type::End,
                        .track = track,
                        .label = kNoLabel,
                        .name = open,
                        .time = time,
                        .isSupplied = isSupplied});
    open.clear();
}

} // namespace Quorvex
