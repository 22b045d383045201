# 64-bit big-endian Linux (IBM Z), cross-compiled and run under qemu-s390x.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(LOWLEVEL_PLATFORM linux-s390x)
set(LOWLEVEL_GNU_TRIPLET s390x-linux-gnu)
set(LOWLEVEL_MULTIARCH s390x-linux-gnu)
set(LOWLEVEL_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
