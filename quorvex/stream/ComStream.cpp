#include "quorvex/stream/ComStream.h"

#include "quorvex/format/Exception.h"

namespace Quorvex::detail {

ComStream::ComStream(const ATL::CComQIPtr<IStream>& stream) {
    const HRESULT result = stream ? stream.QueryInterface(&m_stream) : S_OK;
    if (FAILED(result))
        CQVXException::ThrowHResult(result);
}

bool ComStream::seek(std::int64_t offset, DWORD origin, std::uint64_t& position) const {
    LARGE_INTEGER move;
    move.QuadPart = offset;
    ULARGE_INTEGER reached;
    reached.QuadPart = 0;
    if (!m_stream || FAILED(m_stream->Seek(move, origin, &reached)))
        return false;
    position = reached.QuadPart;
    return true;
}

} // namespace Quorvex::detail
