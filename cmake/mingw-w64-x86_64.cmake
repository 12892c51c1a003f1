# Cross-compiling for 64-bit Windows with Debian's MinGW-w64 (posix threads,
# package g++-mingw-w64-x86-64-posix). Used by scripts/qt-mingw to build Qt,
# and for the plug-in's own Windows build:
#
#   cmake -S . -B build-mingw -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
#     -DCMAKE_PREFIX_PATH="$(scripts/qt-mingw | tail -1)" -DQT_HOST_PATH=/usr
#
# The posix flavour is needed: the win32 one has no std::thread/std::mutex.
# Programs built with it need libstdc++-6.dll, libgcc_s_seh-1.dll and
# libwinpthread-1.dll at run time: scripts/wine-env prints the wine
# environment that finds them (and Qt), and tests run through ctest when
# -DCMAKE_CROSSCOMPILING_EMULATOR=wine64 is given as well.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${MINGW_TRIPLET}-windres)

# Libraries, headers and CMake packages come from the MinGW sysroot and from
# the prefixes given on the command line (the Windows Qt), never from the
# host's /usr. Qt finds its host tools (moc, rcc, ...) through QT_HOST_PATH by
# itself. A prefix already under a root path is searched as it is.
set(CMAKE_FIND_ROOT_PATH /usr/${MINGW_TRIPLET} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Keeps pkg-config away from the host's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/${MINGW_TRIPLET}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
