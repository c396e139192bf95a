# Cross build for Linux arm64 with Debian's cross compiler
# (crossbuild-essential-arm64) against multiarch :arm64 libraries
# (dpkg --add-architecture arm64; libcurl4-openssl-dev:arm64, libsqlite3-dev:arm64).
# `scripts/bootstrap arm64` installs both, and qemu-user-static to run the result:
#   qemu-aarch64-static -L / build/arm64/tests/platform_json_test
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TAVRIN_TRIPLET aarch64-linux-gnu)

set(CMAKE_C_COMPILER ${TAVRIN_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVRIN_TRIPLET}-g++)

# Libraries and CMake packages come from the multiarch directories only; the
# host's (x86-64) ones must never be found. Headers of architecture-independent
# packages (nlohmann-json, cpp-httplib, GoogleTest) stay in /usr/include, which
# the cross compiler already searches after its own; naming /usr/include as an
# -I directory would put it ahead of the arm64 C library's headers.
set(CMAKE_FIND_ROOT_PATH /usr/${TAVRIN_TRIPLET})
set(CMAKE_LIBRARY_ARCHITECTURE ${TAVRIN_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)

# pkg-config reads the arm64 .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${TAVRIN_TRIPLET}/pkgconfig:/usr/share/pkgconfig)

# Tests and the example run under user-mode emulation with the multiarch
# loader and libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static;-L;/)
