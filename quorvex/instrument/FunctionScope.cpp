#include "quorvex/instrument/FunctionScope.h"

#include "quorvex/packets/SoftwareObjectPackets.h"

namespace Quorvex {

CFunctionScope::CFunctionScope(const Site& site, CQVXInstrumentingStream*& announced)
    : m_stream(CQVXInstrumentingStream::get_Instance()), m_id(site.id) {
    if (!m_stream)
        return;
    if (announced != m_stream) {
        m_stream->FunctionDefine(site.name, site.id);
        announced = m_stream;
    }
    CFunctionEnter enter(m_stream->Context(), m_id);
    m_stream->put(&enter);
}

CFunctionScope::~CFunctionScope() {
    // The stream may have been completed since; it is asked for again rather than remembered.
    CQVXInstrumentingStream* stream = m_stream ? CQVXInstrumentingStream::get_Instance() : nullptr;
    if (!stream)
        return;
    CFunctionLeave leave(stream->Context(), m_id);
    stream->put(&leave);
}

unsigned CFunctionScope::nextId() {
    static constinit std::atomic<unsigned> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace Quorvex
