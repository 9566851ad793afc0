#include "quorvex/instrument/FunctionScope.h"

#include "quorvex/instrument/InstrumentingStream.h"

#include <atomic>

namespace Quorvex {

CFunctionScope::CFunctionScope(const Site& site, CQVXInstrumentingStream*& announced)
    : m_stream(CQVXInstrumentingStream::get_Instance()), m_id(site.id) {
    if (!m_stream)
        return;
    if (announced != m_stream) {
        m_stream->FunctionDefine(site.name, site.id);
        announced = m_stream;
    }
    m_stream->FunctionEnter(m_id);
}

CFunctionScope::~CFunctionScope() {
    // The stream may have been completed since; it is asked for again rather than remembered.
    if (CQVXInstrumentingStream* stream = m_stream ? CQVXInstrumentingStream::get_Instance() : nullptr)
        stream->FunctionLeave(m_id);
}

unsigned CFunctionScope::nextId() {
    static constinit std::atomic<unsigned> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace Quorvex
