#pragma once

/// The COM names that the buffers over a host's streams use. On Windows they are the system's own; elsewhere they are
/// declared here with their usual layout, so that a host reads the same source on every system.

#include "quorvex/platform/Bstr.h"
#include "quorvex/platform/Export.h"

#include <concepts>
#include <cstdint>
#include <utility>

#if defined(_WIN32)
#include <objidl.h>

namespace Quorvex::platform {
/// The identifier of a COM interface.
template <class T> const IID& iidOf() {
    return __uuidof(T);
}
} // namespace Quorvex::platform
#else
/// How methods of COM interfaces are called, where the system has several ways.
#define STDMETHODCALLTYPE

using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using OLECHAR = wchar_t;

struct LARGE_INTEGER {
    std::int64_t QuadPart;
};
struct ULARGE_INTEGER {
    std::uint64_t QuadPart;
};
struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
    bool operator==(const GUID&) const = default;
};
using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;

struct STATSTG {
    OLECHAR* pwcsName;
    DWORD type;
    ULARGE_INTEGER cbSize;
    FILETIME mtime;
    FILETIME ctime;
    FILETIME atime;
    DWORD grfMode;
    DWORD grfLocksSupported;
    CLSID clsid;
    DWORD grfStateBits;
    DWORD reserved;
};

enum STREAM_SEEK : DWORD { STREAM_SEEK_SET = 0, STREAM_SEEK_CUR = 1, STREAM_SEEK_END = 2 };

struct QUORVEX_API IUnknown {
    virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) = 0;
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;
};

struct QUORVEX_API ISequentialStream : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Read(void* bytes, ULONG count, ULONG* read) = 0;
    virtual HRESULT STDMETHODCALLTYPE Write(const void* bytes, ULONG count, ULONG* written) = 0;
};

struct QUORVEX_API IStream : ISequentialStream {
    virtual HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) = 0;
    virtual HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER count, ULARGE_INTEGER* read,
                                             ULARGE_INTEGER* written) = 0;
    virtual HRESULT STDMETHODCALLTYPE Commit(DWORD flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE Revert() = 0;
    virtual HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) = 0;
    virtual HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) = 0;
    virtual HRESULT STDMETHODCALLTYPE Stat(STATSTG* status, DWORD flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE Clone(IStream** copy) = 0;
};

inline constexpr IID IID_IUnknown{0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_ISequentialStream{
    0x0C733A30, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};
inline constexpr IID IID_IStream{0x0000000C, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

namespace Quorvex::platform {
/// The identifier of a COM interface. Specialise it for an interface of your own that is to be queried for.
template <class T> const IID& iidOf() = delete;
template <> inline const IID& iidOf<IUnknown>() {
    return IID_IUnknown;
}
template <> inline const IID& iidOf<ISequentialStream>() {
    return IID_ISequentialStream;
}
template <> inline const IID& iidOf<IStream>() {
    return IID_IStream;
}
} // namespace Quorvex::platform
#endif

#if defined(_MSC_VER) && __has_include(<atlbase.h>)
#include <atlbase.h>
#else
namespace ATL {

/// Holds one reference to a COM object, or null.
template <class T> class QUORVEX_TEMPLATE_API CComPtr {
public:
    CComPtr() = default;
    CComPtr(T* object) : p(object) {
        if (p)
            p->AddRef();
    }
    CComPtr(const CComPtr& other) : CComPtr(other.p) {}
    CComPtr(CComPtr&& other) noexcept : p(other.Detach()) {}
    CComPtr& operator=(CComPtr other) noexcept {
        std::swap(p, other.p);
        return *this;
    }
    ~CComPtr() { Release(); }

    operator T*() const { return p; }
    T* operator->() const { return p; }
    /// For calls that store a pointer there together with its reference; only while nothing is held.
    T** operator&() { return &p; }
    void Release() {
        if (T* object = Detach())
            object->Release();
    }
    T* Detach() { return std::exchange(p, nullptr); } ///< gives the reference away
    /// Takes a reference over that the caller has.
    void Attach(T* object) {
        if (T* old = std::exchange(p, object))
            old->Release();
    }
    /// Stores the pointer together with a reference of its own.
    HRESULT CopyTo(T** object) const {
        if (!object)
            return E_POINTER;
        *object = CComPtr(p).Detach();
        return S_OK;
    }
    template <class Q> HRESULT QueryInterface(Q** object) const {
        return p && object ? p->QueryInterface(Quorvex::platform::iidOf<Q>(), reinterpret_cast<void**>(object))
                           : E_POINTER;
    }

    T* p = nullptr;
};

/// The same, which asks objects that are known by another interface for this one; null when they do not have it.
template <class T> class QUORVEX_TEMPLATE_API CComQIPtr : public CComPtr<T> {
public:
    CComQIPtr() = default;
    CComQIPtr(T* object) : CComPtr<T>(object) {}
    template <class Q> CComQIPtr(Q* object) requires(!std::convertible_to<Q*, T*>) {
        if (FAILED(CComPtr<Q>(object).QueryInterface(&this->p)))
            this->p = nullptr;
    }
    template <class Q> CComQIPtr(const CComPtr<Q>& object) : CComQIPtr(object.p) {}
};

} // namespace ATL
#endif
