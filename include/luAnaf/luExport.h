// The one export macro of the library: every public class and function carries it.
#pragma once

#if defined(_WIN32)
#if defined(LUANAF_BUILDING)
#define LUANAF_API __declspec(dllexport)
#else
#define LUANAF_API __declspec(dllimport)
#endif
#else
#define LUANAF_API __attribute__((visibility("default")))
#endif

// Lets the compiler check printf-style arguments: LUANAF_PRINTF_FORMAT(1, 2)
// after a declaration whose first parameter is the format. MinGW checks
// against the C99 rules its ANSI stdio follows.
#if defined(__GNUC__) || defined(__clang__)
#if defined(__MINGW32__)
#define LUANAF_PRINTF_FORMAT(fmt, args) __attribute__((format(gnu_printf, fmt, args)))
#else
#define LUANAF_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#endif
#else
#define LUANAF_PRINTF_FORMAT(fmt, args)
#endif
