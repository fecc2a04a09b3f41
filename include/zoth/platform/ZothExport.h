/// \file
/// ZOTH_API marks what the shared library exports; everything else is hidden. Like every macro of
/// the public headers, each is defined only where the client has not defined it already.
#pragma once

#if defined(_WIN32)
#ifndef ZOTH_API
#if defined(ZOTH_BUILDING_LIBRARY)
#define ZOTH_API __declspec(dllexport)
#else
#define ZOTH_API __declspec(dllimport)
#endif
#endif
#ifndef ZOTH_PRINTF_FORMAT
#define ZOTH_PRINTF_FORMAT(fmt, args)
#endif
#else
#ifndef ZOTH_API
#define ZOTH_API __attribute__((visibility("default")))
#endif
#ifndef ZOTH_PRINTF_FORMAT
#define ZOTH_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#endif
#endif
