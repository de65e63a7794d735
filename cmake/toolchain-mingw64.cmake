# Cross-build for Windows x86-64 with Debian's MinGW-w64 (posix threads).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(LUANAF_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${LUANAF_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${LUANAF_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${LUANAF_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${LUANAF_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The runtime DLLs are linked in, so the tests run under Wine without copying them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++ -static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static-libgcc -static-libstdc++ -static")
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
# C99 printf semantics (%zu, %lld, two-digit exponents): the header lines and
# every message then print byte for byte as they do on Linux.
set(CMAKE_CXX_FLAGS_INIT "-D__USE_MINGW_ANSI_STDIO=1")
set(CMAKE_C_FLAGS_INIT "-D__USE_MINGW_ANSI_STDIO=1")
