#pragma once

/// The COM names that the library's interface uses. On Windows they are the system's own; elsewhere they are declared
/// here with their usual layout, so that a host reads the same source on every system.

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <string>
#include <utility>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <oleauto.h>
#include <windows.h>
#else
using HRESULT = std::int32_t;
/// A wide, zero-terminated string whose byte count stands in the four bytes before it; null is the empty string.
using BSTR = wchar_t*;

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFF);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000E);

/// A copy of `count` characters of `text` (zeros for a null `text`); null when memory is short. Free with
/// SysFreeString.
QUORVEX_API BSTR SysAllocStringLen(const wchar_t* text, unsigned count);
/// A copy of `count` bytes, taken as they are; null when memory is short.
QUORVEX_API BSTR SysAllocStringByteLen(const char* bytes, unsigned count);
QUORVEX_API void SysFreeString(BSTR text);
QUORVEX_API unsigned SysStringLen(BSTR text);     ///< characters, 0 for null
QUORVEX_API unsigned SysStringByteLen(BSTR text); ///< bytes, 0 for null
#endif

/// The system's "disk full" error as an HRESULT.
constexpr HRESULT kDiskFullResult = static_cast<HRESULT>(0x80070070);

#if defined(_MSC_VER) && __has_include(<atlbase.h>)
#include <atlbase.h>
#else
namespace ATL {

/// Owns one BSTR. Copies allocate; a failed allocation throws std::bad_alloc.
class QUORVEX_API CComBSTR {
public:
    CComBSTR() = default;
    CComBSTR(const wchar_t* text);
    /// Widens each byte of a narrow text to one character.
    CComBSTR(const char* text);
    CComBSTR(int length, const wchar_t* text);
    CComBSTR(const CComBSTR& other);
    CComBSTR(CComBSTR&& other) noexcept : m_str(std::exchange(other.m_str, nullptr)) {}
    CComBSTR& operator=(CComBSTR other) noexcept {
        std::swap(m_str, other.m_str);
        return *this;
    }
    ~CComBSTR() { SysFreeString(m_str); }

    operator BSTR() const { return m_str; }
    unsigned Length() const { return SysStringLen(m_str); }
    unsigned ByteLength() const { return SysStringByteLen(m_str); }
    BSTR Copy() const;                                      ///< a new string that the caller frees
    BSTR Detach() { return std::exchange(m_str, nullptr); } ///< gives the string away
    void Attach(BSTR text);                                 ///< takes the string over
    void Empty() { Attach(nullptr); }
    bool operator==(const CComBSTR& other) const;

    BSTR m_str = nullptr;
};

} // namespace ATL
#endif
