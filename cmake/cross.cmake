# Cross build for a Debian architecture, included by cmake/toolchain-ARCH.cmake
# after it set WHTTPD_CROSS_ARCH (Debian's name), WHTTPD_CROSS_TRIPLET (the GNU
# multiarch triplet), WHTTPD_CROSS_QEMU (qemu-user's name of the CPU) and
# CMAKE_SYSTEM_PROCESSOR.  Debian's cross compiler builds against the sysroot
# that scripts/cross-deps unpacks, and programs that run at build or test
# time (wdmgen, the tests) run under qemu-user with the sysroot's libraries;
# the programs those start reach qemu through binfmt_misc and find the same
# libraries through QEMU_LD_PREFIX, which they inherit.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${WHTTPD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${WHTTPD_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${WHTTPD_CROSS_TRIPLET})

get_filename_component(WHTTPD_SYSROOT
    "${CMAKE_CURRENT_LIST_DIR}/../build-tools/sysroot-${WHTTPD_CROSS_ARCH}" ABSOLUTE)
set(CMAKE_SYSROOT ${WHTTPD_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${WHTTPD_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads only the target's .pc files and prefixes their paths.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${WHTTPD_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    "${WHTTPD_SYSROOT}/usr/lib/${WHTTPD_CROSS_TRIPLET}/pkgconfig:${WHTTPD_SYSROOT}/usr/share/pkgconfig")

set(CMAKE_CROSSCOMPILING_EMULATOR
    env QEMU_LD_PREFIX=${WHTTPD_SYSROOT} qemu-${WHTTPD_CROSS_QEMU}-static)

# The Debian package of this build names the target's architecture.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${WHTTPD_CROSS_ARCH})
