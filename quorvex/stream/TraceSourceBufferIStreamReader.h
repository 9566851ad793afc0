#pragma once

#include "quorvex/stream/IStreamReader.h"
#include "quorvex/stream/TraceSourceBufferCom.h"

namespace Quorvex {

/// Bytes of a host's reader, to which the buffer holds a reference.
class QUORVEX_API CTraceSourceBufferIStreamReader : public CTraceSourceBufferCom {
public:
    /// Null makes a buffer that is never good.
    explicit CTraceSourceBufferIStreamReader(IStreamReader* reader);

    bool good() override { return m_reader != nullptr; }

private:
    bool take(char* dst, unsigned count, unsigned& got) override;
    bool tell(std::uint64_t& position) override;
    bool seek(std::uint64_t position) override;
    bool seekEnd(std::uint64_t& size) override;

    const ATL::CComPtr<IStreamReader> m_reader;
};

} // namespace Quorvex
