# Cross build for macOS 14 from Linux: clang 16 and lld against a macOS
# sysroot of headers and link stubs (never part of this repository).
#
# Included by macos-arm64.cmake and macos-x86_64.cmake, which set
# NETVANE_MACOS_ARCH. The sysroot is CMAKE_OSX_SYSROOT when given on the
# command line, else the MACSDK environment variable.
cmake_minimum_required(VERSION 3.25)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${NETVANE_MACOS_ARCH})
set(CMAKE_SYSTEM_VERSION 23.0)  # the Darwin kernel of macOS 14
set(CMAKE_OSX_ARCHITECTURES ${NETVANE_MACOS_ARCH} CACHE STRING "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET 14.0 CACHE STRING "" FORCE)
if(NOT CMAKE_OSX_SYSROOT)
  if(NOT DEFINED ENV{MACSDK} OR "$ENV{MACSDK}" STREQUAL "")
    message(FATAL_ERROR "no macOS sysroot: pass -DCMAKE_OSX_SYSROOT=DIR or set MACSDK")
  endif()
  set(CMAKE_OSX_SYSROOT "$ENV{MACSDK}" CACHE PATH "macOS sysroot" FORCE)
endif()
if(NOT IS_DIRECTORY "${CMAKE_OSX_SYSROOT}/usr/include")
  message(FATAL_ERROR "${CMAKE_OSX_SYSROOT} is not a macOS sysroot (no usr/include)")
endif()

set(_nv_triple ${NETVANE_MACOS_ARCH}-apple-macos14)
foreach(lang C CXX OBJC OBJCXX)
  set(CMAKE_${lang}_COMPILER_TARGET ${_nv_triple})
endforeach()
find_program(_nv_clang NAMES clang-16 REQUIRED)
find_program(_nv_clangxx NAMES clang++-16 REQUIRED)
set(CMAKE_C_COMPILER ${_nv_clang})
set(CMAKE_OBJC_COMPILER ${_nv_clang})
set(CMAKE_CXX_COMPILER ${_nv_clangxx})
set(CMAKE_OBJCXX_COMPILER ${_nv_clangxx})
find_program(_nv_ld64 NAMES ld64.lld PATHS /usr/lib/llvm-16/bin /usr/lib/llvm-15/bin /usr/lib/llvm-14/bin REQUIRED)
find_program(CMAKE_AR NAMES llvm-ar-16 llvm-ar-14 llvm-ar REQUIRED)
find_program(CMAKE_RANLIB NAMES llvm-ranlib-16 llvm-ranlib-14 llvm-ranlib REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL
  NAMES llvm-install-name-tool-16 llvm-install-name-tool-14 llvm-install-name-tool REQUIRED)

# The SDK's headers test the deployment target through this macro, which
# clang predefines only when it knows the target's SDK. libc++'s headers come
# from the sysroot, never from the build machine; those two options matter
# only when compiling, so the link line must not warn about them.
set(_nv_c_flags "-D__ENVIRONMENT_OS_VERSION_MIN_REQUIRED__=140000")
string(JOIN " " _nv_cxx_flags ${_nv_c_flags}
  --start-no-unused-arguments -stdlib=libc++ -nostdinc++ --end-no-unused-arguments
  -isystem ${CMAKE_OSX_SYSROOT}/usr/include/c++/v1)
set(CMAKE_C_FLAGS_INIT "${_nv_c_flags}")
set(CMAKE_OBJC_FLAGS_INIT "${_nv_c_flags}")
set(CMAKE_CXX_FLAGS_INIT "${_nv_cxx_flags}")
set(CMAKE_OBJCXX_FLAGS_INIT "${_nv_cxx_flags}")
# -mlinker-version tells clang the linker speaks the modern ld64 options.
# Every symbol must resolve against the SDK's link stubs now, not at launch,
# and the linker's warnings fail the build as the compiler's do.
string(JOIN " " _nv_link_flags
  -nostdlib++ -fuse-ld=${_nv_ld64} -mlinker-version=705 -Wl,-undefined,error -Wl,-fatal_warnings
  -L${CMAKE_OSX_SYSROOT}/usr/lib -lc++ -F${CMAKE_OSX_SYSROOT}/System/Library/Frameworks)
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_nv_link_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_nv_link_flags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_nv_link_flags}")

set(CMAKE_FIND_ROOT_PATH "${CMAKE_OSX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
