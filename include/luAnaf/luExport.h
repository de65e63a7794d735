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
