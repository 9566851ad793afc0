#include "quorvex/instrument/FunctionScope.h"

#include "quorvex/instrument/CallRecording.h"

#include <atomic>

namespace Quorvex {

namespace {

unsigned idOf(CFunctionScope::Site& site) {
    return std::atomic_ref(site.id).load(std::memory_order_relaxed);
}

void announce(CFunctionScope::Site& site, CQVXInstrumentingStream& stream) {
    static constinit std::atomic<unsigned> last{0};
    // Where two threads are the first, one of their numbers is lost.
    if (unsigned none = idOf(site); none == 0)
        std::atomic_ref(site.id).compare_exchange_strong(none, last.fetch_add(1, std::memory_order_relaxed) + 1,
                                                         std::memory_order_relaxed);
    stream.FunctionDefine(site.name, idOf(site));
}

} // namespace

unsigned CFunctionScope::enter(Site& site, CQVXInstrumentingStream*& announced) {
    CQVXInstrumentingStream* const stream = CQVXInstrumentingStream::ofThread();
    if (!stream) [[unlikely]]
        return 0;
    if (announced != stream) [[unlikely]] {
        announce(site, *stream);
        announced = stream;
    }
    const unsigned id = idOf(site);
    stream->recordCall<tagTCode::FunctionEnter>(id);
    return id;
}

void CFunctionScope::leave(unsigned id) {
    // The stream may have been completed since; it is asked for again rather than remembered.
    if (CQVXInstrumentingStream* const stream = CQVXInstrumentingStream::ofThread())
        stream->recordCall<tagTCode::FunctionLeave>(id);
}

} // namespace Quorvex
