#pragma once

/// The strings of COM, in which messages are told. On Windows they are the system's own, with ATL's class where the
/// compiler has it; elsewhere they are declared here with their usual layout.

#include "quorvex/platform/Export.h"
#include "quorvex/platform/HResult.h"

#include <new>
#include <utility>

#if defined(_WIN32)
#include <oleauto.h>
#else
/// A wide, zero-terminated string whose byte count stands in the four bytes before it; null is the empty string.
using BSTR = wchar_t*;

/// A copy of `count` characters of `text` (zeros for a null `text`); null when memory is short, or the text longer than
/// the four bytes of its length can tell. Free with SysFreeString.
QUORVEX_API BSTR SysAllocStringLen(const wchar_t* text, unsigned count);
/// A copy of `count` bytes, taken as they are; null when memory is short.
QUORVEX_API BSTR SysAllocStringByteLen(const char* bytes, unsigned count);
QUORVEX_API void SysFreeString(BSTR text);
QUORVEX_API unsigned SysStringLen(BSTR text);     ///< characters, 0 for null
QUORVEX_API unsigned SysStringByteLen(BSTR text); ///< bytes, 0 for null
#endif

#if defined(_MSC_VER) && __has_include(<atlbase.h>)
#include <atlbase.h>
#else
namespace ATL {

/// What the string layer throws when memory is short, with the HRESULT of that.
class QUORVEX_API CAtlException : public std::bad_alloc {
public:
    explicit CAtlException(HRESULT result) noexcept : m_hr(result) {}
    ~CAtlException() override;
    operator HRESULT() const noexcept { return m_hr; }

    HRESULT m_hr;
};

/// Owns one BSTR. Copies allocate; a failed allocation throws CAtlException(E_OUTOFMEMORY).
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
