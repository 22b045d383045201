# 64-bit Windows with the MinGW-w64 compiler (Debian: g++-mingw-w64-x86-64-posix). Programs run
# through Wine, so gtest_discover_tests and ctest need nothing else. Libraries are found in the
# private sysroot that `scripts/setup.sh --target windows-x64` fills.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

get_filename_component(LOWLEVEL_TARGET_TOP "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
set(LOWLEVEL_SYSROOT "${LOWLEVEL_TARGET_TOP}/build/sysroot/windows-x64")
# The set-up builds the sysroot's own libraries with this file, before they exist.
if(NOT EXISTS "${LOWLEVEL_SYSROOT}/usr/lib/libzstd.a" AND NOT DEFINED ENV{LOWLEVEL_SETUP})
  message(FATAL_ERROR "No sysroot for windows-x64 in ${LOWLEVEL_SYSROOT}: "
                      "run scripts/setup.sh --target windows-x64 first.")
endif()
set(CMAKE_FIND_ROOT_PATH "${LOWLEVEL_SYSROOT}" /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${LOWLEVEL_SYSROOT}/usr/lib/pkgconfig:${LOWLEVEL_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${LOWLEVEL_SYSROOT}")

# The compiler's runtime goes into every program and DLL, so they run without MinGW's DLLs beside
# them. A DLL exports none of what it took from static libraries (the runtime, zstd).
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -Wl,--exclude-libs,ALL")

# A quiet Wine with a prefix of its own, no display and no standard input needed.
# WINEPATH puts the sysroot's zstd.exe on the tests' PATH, as a Windows path on Wine's Z: drive.
string(REPLACE "/" "\\" LOWLEVEL_WINE_BIN "Z:${LOWLEVEL_SYSROOT}/usr/bin")
set(CMAKE_CROSSCOMPILING_EMULATOR env "WINEPREFIX=${LOWLEVEL_TARGET_TOP}/build/wine-prefix"
    "WINEPATH=${LOWLEVEL_WINE_BIN}" WINEDEBUG=-all "WINEDLLOVERRIDES=mscoree,mshtml=" DISPLAY= wine)
