# Cross build for Windows x64 with Debian's mingw-w64 (the POSIX-threads
# variant, for std::thread and futures): g++-mingw-w64-x86-64-posix.
# `scripts/bootstrap windows` installs it, and wine64 to run the result:
#   /usr/lib/wine/wine64 build/windows/tests/platform_json_test.exe
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TAVRIN_TRIPLET x86_64-w64-mingw32)

set(CMAKE_C_COMPILER ${TAVRIN_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TAVRIN_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TAVRIN_TRIPLET}-windres)

# Libraries, headers and packages come from the mingw tree only: the host's
# /usr/include and /usr/lib hold Linux's, which must never reach this compiler.
set(CMAKE_FIND_ROOT_PATH /usr/${TAVRIN_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages: also an installed tavrin prefix a consumer names (CMAKE_PREFIX_PATH).
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The compiler's own runtime (libstdc++, libgcc, winpthreads) is linked in, so
# a program runs on Windows (and under wine) without DLLs beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
# A DLL carries them too, without exporting them (a program linking it keeps
# its own copy).
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -Wl,--exclude-libs,libpthread.a:libwinpthread.a:libgcc.a:libgcc_eh.a:libstdc++.a")

# Tests and the example run under wine.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
