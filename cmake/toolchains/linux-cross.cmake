# Shared part of the Linux cross toolchain files. The including file sets LOWLEVEL_PLATFORM (the
# preset's name), LOWLEVEL_GNU_TRIPLET (the cross compiler's prefix), LOWLEVEL_MULTIARCH (Debian's
# library directory name) and LOWLEVEL_QEMU (the user-mode emulator).
#
# The compiler brings its own C and C++ runtime under /usr/<triplet>; every other library comes from
# the private sysroot that `scripts/setup.sh --target NAME` unpacks under build/. CMake's searches
# and pkg-config look only there, and test programs run under the emulator, so a project that uses
# find_package, pkg_check_modules and ctest needs nothing but this file.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${LOWLEVEL_GNU_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${LOWLEVEL_GNU_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${LOWLEVEL_MULTIARCH})

if(NOT LOWLEVEL_SYSROOT)
  if(DEFINED ENV{LOWLEVEL_SYSROOT})
    set(LOWLEVEL_SYSROOT $ENV{LOWLEVEL_SYSROOT})
  else()
    get_filename_component(LOWLEVEL_SYSROOT
                           "${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${LOWLEVEL_PLATFORM}" ABSOLUTE)
  endif()
endif()
if(NOT EXISTS "${LOWLEVEL_SYSROOT}/.packages")
  message(FATAL_ERROR "No sysroot for ${LOWLEVEL_PLATFORM} in ${LOWLEVEL_SYSROOT}: "
                      "run scripts/setup.sh --target ${LOWLEVEL_PLATFORM} first.")
endif()
set(LOWLEVEL_RUNTIME_ROOT /usr/${LOWLEVEL_GNU_TRIPLET})

set(CMAKE_FIND_ROOT_PATH "${LOWLEVEL_SYSROOT}" "${LOWLEVEL_RUNTIME_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

unset(ENV{PKG_CONFIG_PATH})
set(ENV{PKG_CONFIG_LIBDIR}
    "${LOWLEVEL_SYSROOT}/usr/lib/${LOWLEVEL_MULTIARCH}/pkgconfig:${LOWLEVEL_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${LOWLEVEL_SYSROOT}")

# The loader and the C++ runtime come from the compiler's root, the other libraries from the sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR ${LOWLEVEL_QEMU} -L ${LOWLEVEL_RUNTIME_ROOT}
    -E LD_LIBRARY_PATH=${LOWLEVEL_SYSROOT}/usr/lib/${LOWLEVEL_MULTIARCH})
