#pragma once
// Whether this Windows test runs under wine, whose WinHTTP differs from
// Windows' own in ways a test of the contract must not count against the
// client (it takes an interim 1xx status line for the final one). Always
// false elsewhere.

#if defined(_WIN32)
#include <windows.h>
#endif

namespace tavrin::testing {

inline bool runningUnderWine() {
#if defined(_WIN32)
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return false;
#endif
}

}  // namespace tavrin::testing
