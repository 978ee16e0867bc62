# Cross build for a Linux panel with a GNU cross compiler and a sysroot.
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-linux-cross.cmake \
#         -DXBC_TRIPLET=aarch64-linux-gnu -DXBC_SYSROOT=/path/to/sysroot
#
# XBC_TRIPLET       target triplet (aarch64-linux-gnu, arm-linux-gnueabihf, ...)
# XBC_SYSROOT       root of the target's file system: libc, libstdc++, Qt and their
#                   headers, as on the panel (scripts/cross-build.sh makes one from
#                   Debian 12's packages; a panel vendor's SDK sysroot works too)
# XBC_CROSS_PREFIX  compiler prefix, default "<triplet>-" (Debian's cross compilers);
#                   a vendor toolchain may need a full path here
# Tests run under qemu-user when it is installed.
set(CMAKE_SYSTEM_NAME Linux)
if(NOT XBC_TRIPLET)
  set(XBC_TRIPLET aarch64-linux-gnu)
endif()
if(NOT XBC_SYSROOT)
  message(FATAL_ERROR "Set XBC_SYSROOT to the target's sysroot")
endif()
if(NOT DEFINED XBC_CROSS_PREFIX)
  set(XBC_CROSS_PREFIX "${XBC_TRIPLET}-")
endif()
# try_compile projects read this file again: hand the settings on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES XBC_TRIPLET XBC_SYSROOT XBC_CROSS_PREFIX)

# Processor, Debian architecture and qemu-user name of each triplet.
if(XBC_TRIPLET MATCHES "^aarch64")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(XBC_DEB_ARCH arm64)
  set(xbc_qemu qemu-aarch64)
elseif(XBC_TRIPLET MATCHES "^arm.*hf$")
  set(CMAKE_SYSTEM_PROCESSOR armv7l)
  set(XBC_DEB_ARCH armhf)
  set(xbc_qemu qemu-arm)
elseif(XBC_TRIPLET MATCHES "^arm")
  set(CMAKE_SYSTEM_PROCESSOR arm)
  set(XBC_DEB_ARCH armel)
  set(xbc_qemu qemu-arm)
else()
  string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR "${XBC_TRIPLET}")
  set(XBC_DEB_ARCH "${CMAKE_SYSTEM_PROCESSOR}")
  set(xbc_qemu "qemu-${CMAKE_SYSTEM_PROCESSOR}")
endif()

set(CMAKE_C_COMPILER "${XBC_CROSS_PREFIX}gcc")
set(CMAKE_CXX_COMPILER "${XBC_CROSS_PREFIX}g++")
set(CMAKE_SYSROOT "${XBC_SYSROOT}")
# Debian-style multiarch directories (lib/<triplet>), also for GNUInstallDirs.
set(CMAKE_LIBRARY_ARCHITECTURE "${XBC_TRIPLET}")
set(CMAKE_FIND_ROOT_PATH "${XBC_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config looks in the sysroot only.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${XBC_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${XBC_SYSROOT}/usr/lib/${XBC_TRIPLET}/pkgconfig:${XBC_SYSROOT}/usr/lib/pkgconfig:${XBC_SYSROOT}/usr/share/pkgconfig")

# Tests (and gtest's test discovery) run the target's programs under qemu-user,
# which takes the dynamic loader and libraries from the sysroot.
find_program(XBC_QEMU ${xbc_qemu})
if(XBC_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${XBC_QEMU};-L;${XBC_SYSROOT}")
endif()
