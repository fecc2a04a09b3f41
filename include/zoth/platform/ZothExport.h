/// \file
/// ZOTH_API marks what the shared library exports; everything else is hidden.
#pragma once

#if defined(_WIN32)
#if defined(ZOTH_BUILDING_LIBRARY)
#define ZOTH_API __declspec(dllexport)
#else
#define ZOTH_API __declspec(dllimport)
#endif
#define ZOTH_PRINTF_FORMAT(fmt, args)
#else
#define ZOTH_API __attribute__((visibility("default")))
#define ZOTH_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#endif
