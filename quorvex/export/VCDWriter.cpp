#include "quorvex/export/VCDWriter.h"

#include "quorvex/export/VCDBody.h"
#include "quorvex/export/VCDHeader.h"
#include "quorvex/export/VCDModel.h"

namespace Quorvex {

CVCDWriter::CVCDWriter(std::ostream& out, ViewerOptions options)
    : CViewerWriter(out,
                    {TextSort::Function, TextSort::Process, TextSort::Variable, TextSort::Counter,
                     TextSort::CounterUnit, TextSort::Event, TextSort::Signal, TextSort::StateMachine,
                     TextSort::StateMachineInstance, TextSort::State},
                    std::move(options)),
      m_body(platform::makeOwned<Body>(*this)),
      m_model(platform::makeOwned<Model>(*this, *m_body)) {}

CVCDWriter::~CVCDWriter() = default;

bool CVCDWriter::show(const CPacket& packet, std::uint64_t time) {
    return m_model->show(packet, time);
}

void CVCDWriter::endOf(unsigned process, std::uint64_t) {
    m_model->endOf(process);
}

void CVCDWriter::end(std::uint64_t time) {
    m_body->end(time);
}

void CVCDWriter::fixLine(std::string_view line, std::string& to) {
    m_body->fixLine(line, to);
}

bool CVCDWriter::writeFile() {
    const auto& [unitsPerSecond, name] = vcd::unitOf(frequency());
    m_duration = unitsOf(m_body->time(), unitsPerSecond);
    return Header(*this, name).write(*m_body) && copyBody('#', unitsPerSecond);
}

} // namespace Quorvex
