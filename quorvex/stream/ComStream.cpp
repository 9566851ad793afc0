#include "quorvex/stream/ComStream.h"

#include "quorvex/format/Exception.h"

#include <cstdio>
#include <string>

namespace Quorvex::detail {

void throwFailure(const char* text, HRESULT failure) {
    CQVXException::ThrowFromHResult(failure);
    char result[11];
    std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(failure));
    CQVXException::ThrowRuntime((std::string(text) + result).c_str());
}

ComStream::ComStream(const ATL::CComQIPtr<IStream>& stream) {
    const HRESULT result = stream ? stream.QueryInterface(&m_stream) : S_OK;
    if (FAILED(result))
        throwFailure("The object does not give its IStream: ", result);
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
