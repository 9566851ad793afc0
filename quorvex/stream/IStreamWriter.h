#pragma once

#include "quorvex/platform/Com.h"

namespace Quorvex {

/// A place where a host takes bytes from the library. The library counts its references and never queries for
/// interfaces.
struct QUORVEX_API IStreamWriter : IUnknown {
    /// Appends up to `count` bytes; `written` is what was taken. S_OK when all is well; any other success means that
    /// the bytes were taken, but that the writer has reason to complain.
    virtual HRESULT STDMETHODCALLTYPE Write(const char* bytes, unsigned count, unsigned* written) = 0;
    /// Where the next byte goes, in bytes from the start.
    virtual HRESULT STDMETHODCALLTYPE Tell(std::uint64_t* position) = 0;
};

} // namespace Quorvex
