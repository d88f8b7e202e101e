# Cross-compiles for the vehicle ECU (64-bit Arm Linux) with Debian's
# aarch64-linux-gnu GCC against a Debian arm64 sysroot, and runs what was built
# (gtest discovery, ctest) under qemu-user. tools/cross-build.sh makes the
# sysroot and drives the whole build; by hand:
#
#   cmake -S . -B build-arm64 -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
#         -DKELVANE_SYSROOT=$HOME/.cache/kelvane/sysroot-arm64
#
# KELVANE_SYSROOT may also come from the environment. Code generators (protoc,
# sdbus-c++-xml2cpp) are the host's: they must run at build time, and the
# host's protoc is the same Debian version as the sysroot's libprotobuf.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# CPack would otherwise label the packages with the build host's architecture.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)

# try_compile projects re-read this file without the main project's cache, so
# the sysroot is handed down both ways.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELVANE_SYSROOT)
if(NOT KELVANE_SYSROOT AND DEFINED ENV{KELVANE_SYSROOT})
    set(KELVANE_SYSROOT "$ENV{KELVANE_SYSROOT}")
endif()
if(NOT KELVANE_SYSROOT AND DEFINED ENV{XDG_CACHE_HOME})
    set(KELVANE_SYSROOT "$ENV{XDG_CACHE_HOME}/kelvane/sysroot-arm64")
elseif(NOT KELVANE_SYSROOT)
    set(KELVANE_SYSROOT "$ENV{HOME}/.cache/kelvane/sysroot-arm64")
endif()
if(NOT EXISTS "${KELVANE_SYSROOT}/usr/include/aarch64-linux-gnu")
    message(FATAL_ERROR "No arm64 sysroot at '${KELVANE_SYSROOT}': make one with tools/cross-build.sh "
                        "or point KELVANE_SYSROOT at one")
endif()
set(KELVANE_SYSROOT "${KELVANE_SYSROOT}" CACHE PATH "Debian arm64 sysroot to build against")
set(ENV{KELVANE_SYSROOT} "${KELVANE_SYSROOT}")

# Debian's cross GCC searches its own arm64 C and C++ runtime (the *-arm64-cross
# packages: the same glibc and GCC releases as the sysroot) before the sysroot.
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_SYSROOT "${KELVANE_SYSROOT}")

# Libraries, headers and CMake packages come from the sysroot only; programs
# from the host only.
set(CMAKE_FIND_ROOT_PATH "${KELVANE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KELVANE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${KELVANE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${KELVANE_SYSROOT}/usr/lib/pkgconfig:${KELVANE_SYSROOT}/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# The D-Bus glue generator is a host program that ships as a CMake package; an
# arm64 copy in the sysroot could not run at build time.
if(NOT sdbus-c++-tools_DIR)
    foreach(dir IN ITEMS /usr/lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu/cmake/sdbus-c++-tools
                         /usr/lib/cmake/sdbus-c++-tools /usr/local/lib/cmake/sdbus-c++-tools)
        if(EXISTS "${dir}/sdbus-c++-tools-config.cmake")
            set(sdbus-c++-tools_DIR "${dir}" CACHE PATH "Host sdbus-c++ tools package")
            break()
        endif()
    endforeach()
endif()

# Built programs run under user-mode emulation, with the sysroot as their root
# for the dynamic loader and libraries.
find_program(KELVANE_QEMU_AARCH64 qemu-aarch64 NO_CMAKE_FIND_ROOT_PATH)
if(NOT KELVANE_QEMU_AARCH64)
    message(FATAL_ERROR "qemu-aarch64 not found (Debian package qemu-user)")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${KELVANE_QEMU_AARCH64};-L;${KELVANE_SYSROOT}")
