// The entry points by which Windows registers components in libraries. This one has none: they do nothing. Dll.def
// exports them.

#include "quorvex/platform/HResult.h"

extern "C" {
HRESULT __stdcall DllCanUnloadNow() {
    return S_OK;
}

HRESULT __stdcall DllInstall(BOOL, LPCWSTR) {
    return S_OK;
}

HRESULT __stdcall DllRegisterServer() {
    return S_OK;
}

HRESULT __stdcall DllUnregisterServer() {
    return S_OK;
}
}
