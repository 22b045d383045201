# 32-bit x86 Linux (32-bit pointers and size_t), cross-compiled and run under qemu-i386.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(LOWLEVEL_PLATFORM linux-i686)
set(LOWLEVEL_GNU_TRIPLET i686-linux-gnu)
set(LOWLEVEL_MULTIARCH i386-linux-gnu)
set(LOWLEVEL_QEMU qemu-i386)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
