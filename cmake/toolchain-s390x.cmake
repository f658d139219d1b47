# Toolchain of the s390x cross build (64-bit IBM Z, big-endian: stands in for big-endian routers).
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-s390x.cmake ...   (scripts/cross s390x)
set(WHTTPD_CROSS_ARCH s390x)
set(WHTTPD_CROSS_TRIPLET s390x-linux-gnu)
set(WHTTPD_CROSS_QEMU s390x)
set(CMAKE_SYSTEM_PROCESSOR s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
