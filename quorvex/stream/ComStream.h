#pragma once

#include "quorvex/platform/Com.h"
#include "quorvex/platform/Export.h"

namespace Quorvex::detail {

/// The IStream under a buffer, or none. The moves are false when there is none and when it fails.
class QUORVEX_API ComStream {
public:
    /// Asks for a reference of its own; throws the CQVXException of the failure when the object refuses.
    explicit ComStream(const ATL::CComQIPtr<IStream>& stream);

    explicit operator bool() const { return m_stream != nullptr; }
    IStream* operator->() const { return m_stream; }
    /// Moves the stream; `position` is where it then stands.
    bool seek(std::int64_t offset, DWORD origin, std::uint64_t& position) const;
    bool tell(std::uint64_t& position) const { return seek(0, STREAM_SEEK_CUR, position); }
    bool seek(std::uint64_t position) const {
        return seek(static_cast<std::int64_t>(position), STREAM_SEEK_SET, position);
    }
    bool seekEnd(std::uint64_t& size) const { return seek(0, STREAM_SEEK_END, size); }

private:
    ATL::CComQIPtr<IStream> m_stream;
};

} // namespace Quorvex::detail
