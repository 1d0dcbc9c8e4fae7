# Cross build for the TV's CPU (32-bit ARM, hard float) with Debian's
# arm-linux-gnueabihf compiler (crossbuild-essential-armhf). CMAKE_SYSROOT
# names the armhf root whose headers and libraries the build uses: the one
# scripts/check-arm makes, or an SDK's sysroot. Programs found at configure
# time (msgfmt, pkg-config) are the build machine's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# GCC notes that the passing of some arguments changed in GCC 7.1: it matters
# only when objects of an older GCC are linked in, and none are.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT CMAKE_SYSROOT)
  message(FATAL_ERROR "The armhf build needs CMAKE_SYSROOT: the armhf root (scripts/check-arm makes one)")
endif()
set(CMAKE_FIND_ROOT_PATH "${CMAKE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the root's .pc files only and prefixes their paths with it.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
