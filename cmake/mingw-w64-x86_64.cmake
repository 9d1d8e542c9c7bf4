# Toolchain file: 64-bit Windows from Debian's mingw-w64 cross compilers (g++-mingw-w64-x86-64).
#
#   cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
#
# The "-posix" compilers are chosen: their C++ runtime has std::thread and std::mutex (through
# winpthreads), which the "-win32" ones of GCC 12 lack. Everything built here is linked
# statically against that runtime (cmake/windows.cmake), so no MinGW DLL travels with the result.
#
# Programs that are built run on this machine through Wine: CMAKE_CROSSCOMPILING_EMULATOR is the
# 64-bit Wine loader unless the caller names another one, and CTest and gtest_discover_tests run
# every test executable through it.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELFS_MINGW_TRIPLET x86_64-w64-mingw32)
find_program(CMAKE_C_COMPILER NAMES ${VELFS_MINGW_TRIPLET}-gcc-posix ${VELFS_MINGW_TRIPLET}-gcc
  REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${VELFS_MINGW_TRIPLET}-g++-posix ${VELFS_MINGW_TRIPLET}-g++
  REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${VELFS_MINGW_TRIPLET}-windres REQUIRED)

# Headers, libraries and packages come from the MinGW sysroot only, never from the build
# machine's /usr; programs (the build tools) come from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${VELFS_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config, where it is used, answers from the MinGW sysroot's .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/${VELFS_MINGW_TRIPLET}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(VELFS_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
  if(VELFS_WINE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VELFS_WINE})
  endif()
endif()
