# Toolchain of the arm64 cross build (64-bit ARM, little-endian).
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm64.cmake ...   (scripts/cross arm64)
set(WHTTPD_CROSS_ARCH arm64)
set(WHTTPD_CROSS_TRIPLET aarch64-linux-gnu)
set(WHTTPD_CROSS_QEMU aarch64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
