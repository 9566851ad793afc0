#pragma once

#include "quorvex/platform/Com.h"

namespace Quorvex {

/// Bytes that a host lets the library read. The library counts its references and never queries for interfaces.
struct QUORVEX_API IStreamReader : IUnknown {
    /// Reads up to `count` bytes at the current position; `got` is what was read, 0 at the end.
    virtual HRESULT STDMETHODCALLTYPE Read(char* bytes, unsigned count, unsigned* got) = 0;
    /// Moves the position to `offset` bytes from the origin, which is one of STREAM_SEEK_SET, _CUR and _END.
    virtual HRESULT STDMETHODCALLTYPE Seek(std::int64_t offset, unsigned origin) = 0;
    /// The current position, in bytes from the start.
    virtual HRESULT STDMETHODCALLTYPE Tell(std::uint64_t* position) = 0;
};

} // namespace Quorvex
