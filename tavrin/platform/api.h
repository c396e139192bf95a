#pragma once
// What a shared build of the library exports: the public API, marked with
// TAVRIN_API. Everything else is built hidden, so a host sees (and may come
// to depend on) nothing of the internals, and the library stays smaller.
// A static build needs no marks on Windows; elsewhere they are harmless.

#if defined(_WIN32)
#if defined(TAVRIN_SHARED) && defined(TAVRIN_BUILDING)
#define TAVRIN_API __declspec(dllexport)
#elif defined(TAVRIN_SHARED)
#define TAVRIN_API __declspec(dllimport)
#else
#define TAVRIN_API
#endif
#elif defined(__GNUC__)
#define TAVRIN_API __attribute__((visibility("default")))
#else
#define TAVRIN_API
#endif
