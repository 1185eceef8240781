#pragma once

/// QVTP_API marks what applications may link against; everything else is hidden.
/// QVTP_HIDDEN takes a class within such a class out again.
/// QVTP_BUILDING is defined while the library itself is compiled, QVTP_STATIC for a static library.
#if defined(_WIN32)
#if defined(QVTP_STATIC)
#define QVTP_API
#elif defined(QVTP_BUILDING)
#define QVTP_API __declspec(dllexport)
#else
#define QVTP_API __declspec(dllimport)
#endif
#define QVTP_HIDDEN
#else
#define QVTP_API __attribute__((visibility("default")))
#define QVTP_HIDDEN __attribute__((visibility("hidden")))
#endif
