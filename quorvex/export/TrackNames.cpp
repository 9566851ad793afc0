#include "quorvex/export/TrackNames.h"

#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"

#include <algorithm>
#include <iterator>

namespace Quorvex {

namespace {

/// By the type of a counter.
constexpr CTrackWriter::Form kForms[] = {CTrackWriter::Form::Unsigned, CTrackWriter::Form::Signed,
                                         CTrackWriter::Form::Real};

/// The word before the identifier of what has no name.
constexpr std::pair<TextSort, const char*> kWords[] = {
    {TextSort::Process, "process "},   {TextSort::Event, "event "},
    {TextSort::Signal, "signal "},     {TextSort::Counter, "counter "},
    {TextSort::State, "state "},       {TextSort::StateMachine, "machine "},
    {TextSort::Variable, "variable "}, {TextSort::StateMachineInstance, "instance "},
};

} // namespace

std::uint32_t CTrackWriter::Names::newLabel(const LabelKey& key) {
    m_labels.push_back(key);
    return m_labelsOf[key] = static_cast<std::uint32_t>(m_labels.size() - 1);
}

std::uint32_t CTrackWriter::Names::groupOf(std::uint32_t process) {
    return m_groupsOf.findOrMake(process, [&] {
        m_groups.push_back(process);
        return static_cast<std::uint32_t>(m_groups.size());
    });
}

std::uint32_t CTrackWriter::Names::add(NamedTrack track) {
    m_tracks.push_back(std::move(track));
    return static_cast<std::uint32_t>(m_tracks.size() - 1);
}

std::uint32_t CTrackWriter::Names::addTrack(Sort sort, std::uint32_t number, std::uint32_t group) {
    return add({{.sort = sort, .group = group, .number = number}});
}

std::uint32_t CTrackWriter::Names::addStates(std::uint64_t instance, std::uint64_t machine) {
    return add({{.sort = Sort::States, .group = 0, .number = 0}, TextSort::StateMachineInstance, instance, machine});
}

std::uint32_t CTrackWriter::Names::keep(const ValueKey& key, std::uint32_t track) {
    return m_known[key] = track;
}

std::uint32_t CTrackWriter::Names::trackOf(Sort sort, TextSort named, std::uint64_t number, std::string suffix) {
    const auto [at, isNew] = m_byName.try_emplace({sort, number, suffix}, static_cast<std::uint32_t>(m_tracks.size()));
    if (isNew)
        add({{.sort = sort, .group = 0, .number = 0}, named, number, 0, std::move(suffix)});
    return at->second;
}

std::string CTrackWriter::Names::nameOf(TextSort sort, std::uint64_t number) const {
    const CTraceNames& names = m_writer.names();
    if (const std::string& name = names.name(sort, number); !name.empty())
        return name;
    const auto* word = std::ranges::find(kWords, sort, &std::pair<TextSort, const char*>::first);
    char digits[2 + 16];
    const auto id = static_cast<std::uint32_t>(names.idOf(sort, number));
    return (word == std::end(kWords) ? std::string() : word->second) + std::string(digits, putHexValue(digits, id));
}

std::string CTrackWriter::Names::textOf(const LabelKey& label) const {
    switch (label.of) {
    case LabelKey::Of::Name:
        return label.sort == TextSort::Function && label.number == CFunctionEnter::kNoFunction
                   ? "(no function)"
                   : nameOf(label.sort, label.number);
    case LabelKey::Of::Interrupt:
        return "interrupt " + std::to_string(label.number);
    case LabelKey::Of::Thread:
        return m_writer.names().threadText(static_cast<std::uint32_t>(label.number));
    default:
        return CTCodeInfo::TCodeToName(tagTCode(label.number));
    }
}

std::string CTrackWriter::Names::nameOfGroup(std::uint32_t group) const {
    const std::uint32_t process = m_groups[group - 1];
    return process == kNone ? "no process" : textOf(m_labels[process]);
}

std::string CTrackWriter::Names::nameOf(const NamedTrack& of) const {
    const std::string core = "core " + std::to_string(of.track.number);
    switch (of.track.sort) {
    case Sort::Thread:
        return (of.track.group == 0 ? core + " without a thread" : m_writer.names().threadText(of.track.number)) +
               (of.track.group > 1 ? " in " + nameOfGroup(of.track.group) : "");
    case Sort::CoreThreads:
        return core;
    case Sort::CoreProcesses:
        return core + " processes";
    case Sort::CoreInterrupts:
        return core + " interrupts";
    case Sort::States:
        return nameOf(TextSort::StateMachine, of.owner) + " " + nameOf(of.sort, of.id);
    default:
        return (of.sort == TextSort::None ? std::string() : nameOf(of.sort, of.id)) + of.suffix;
    }
}

void CTrackWriter::Names::finish() {
    for (NamedTrack& its : m_tracks) {
        its.track.name = nameOf(its);
        const auto number = static_cast<std::uint32_t>(its.id);
        if (its.track.sort == Sort::Counter) {
            its.track.unit = m_writer.counterUnit(number);
            its.track.form = kForms[unsigned(m_writer.counterSort(number).type())];
        } else if (its.track.sort == Sort::Variable || its.track.sort == Sort::Signal) {
            its.track.form = Form::Unsigned;
        }
        if (its.hasText)
            its.track.form = Form::Text;
        tracks.push_back(its.track);
    }
    for (const LabelKey& label : m_labels)
        labels.push_back(textOf(label));
    for (const std::uint32_t process : m_groups)
        groups.push_back(process == kNone ? m_writer.options().inputs : labels[process]);
}

} // namespace Quorvex
