# Toolchain of the mipsel cross build (32-bit MIPS, little-endian: 32-bit long and time_t).
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mipsel.cmake ...   (scripts/cross mipsel)
set(WHTTPD_CROSS_ARCH mipsel)
set(WHTTPD_CROSS_TRIPLET mipsel-linux-gnu)
set(WHTTPD_CROSS_QEMU mipsel)
set(CMAKE_SYSTEM_PROCESSOR mips)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
