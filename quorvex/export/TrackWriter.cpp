#include "quorvex/export/TrackWriter.h"

#include "quorvex/export/TrackModel.h"
#include "quorvex/export/TrackNames.h"
#include "quorvex/export/TrackNotes.h"

#include <algorithm>
#include <initializer_list>

namespace Quorvex {

namespace {

constexpr std::size_t kTextSize = 0x10000;

constexpr std::initializer_list<TextSort> kNamesOfSlices{TextSort::Function, TextSort::Process, TextSort::StateMachine,
                                                         TextSort::StateMachineInstance, TextSort::State};
constexpr std::initializer_list<TextSort> kAllNames{
    TextSort::Function, TextSort::Process,  TextSort::StateMachine, TextSort::StateMachineInstance,
    TextSort::State,    TextSort::Variable, TextSort::Counter,      TextSort::CounterUnit,
    TextSort::Event,    TextSort::Signal};

} // namespace

CTrackWriter::CTrackWriter(std::ostream& out, ViewerOptions options, Wishes wishes)
    : CViewerWriter(out, wishes.values ? kAllNames : kNamesOfSlices, std::move(options)),
      m_wishes(wishes),
      m_names(platform::makeOwned<Names>(*this)),
      m_notes(platform::makeOwned<Notes>(*this, *m_names)),
      m_model(platform::makeOwned<Model>(*this, *m_names, *m_notes)) {}

CTrackWriter::~CTrackWriter() = default;

const std::vector<CTrackWriter::Track>& CTrackWriter::tracks() const {
    return m_names->tracks;
}

const std::vector<std::string>& CTrackWriter::labels() const {
    return m_names->labels;
}

const std::vector<std::string>& CTrackWriter::groups() const {
    return m_names->groups;
}

bool CTrackWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CTrackWriter::endOf(unsigned process, std::uint64_t) {
    m_model->endOf(process);
}

void CTrackWriter::end(std::uint64_t time) {
    m_model->end(time);
    m_notes->finish();
    m_names->finish();
    m_duration = nanoseconds(time);
}

bool CTrackWriter::writeFile() {
    startFile();
    if (!m_notes->tell())
        return false;
    endFile();
    makeTextRoom(0);
    return m_isWritten;
}

void CTrackWriter::makeTextRoom(std::size_t most) {
    const auto size = static_cast<std::size_t>(m_textEnd - m_text.data());
    m_isWritten = m_isWritten && (size == 0 || writeOut({m_text.data(), size}));
    if (most > m_text.size() || m_text.empty())
        m_text.resize(std::max(kTextSize, most));
    m_textEnd = m_text.data();
    m_textLimit = m_textEnd + m_text.size();
}

void CTrackWriter::add(std::string_view text) {
    char* const to = room(text.size());
    std::copy(text.begin(), text.end(), to);
    ends(to + text.size());
}

} // namespace Quorvex
