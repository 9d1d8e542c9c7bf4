# The Windows build of velFS (64-bit, MinGW-w64), included by the top-level CMakeLists.txt in
# place of the pkg-config lookups of the Linux build.
#
# No Debian package ships SQLite or zziplib for MinGW, so they are built here from their release
# files, each pinned by SHA-256:
#   - SQLite 3.50.4, the amalgamation compiled as one file into a static library;
#   - zziplib 0.13.80, built by its own CMake (static, library only) as an external project.
# Both are taken from their release locations, or, when VELFS_THIRD_PARTY_DIR names a folder,
# from the same files in that folder (the build then needs no network). They are offered under
# the names the Linux build's pkg-config lookups give them (PkgConfig::SQLITE3,
# PkgConfig::ZZIPLIB), so every target links them the same way on both platforms.
#
# zlib is Debian's libz-mingw-w64-dev; GoogleTest is built from Debian's googletest sources.
# Everything is linked statically, the C and C++ runtimes included: velfs.dll imports only
# Windows system DLLs and velIOStub.dll, and every program runs without MinGW DLLs beside it.
# Libraries and programs all land in the top of the build directory, where Windows' loader finds
# the DLLs beside the programs that use them.
include_guard(GLOBAL)
include(FetchContent)
include(ExternalProject)

set(VELFS_THIRD_PARTY_DIR "" CACHE PATH
  "Folder holding sqlite-amalgamation-3500400.zip and zziplib-0.13.80.tar.gz; empty: download them")
set(VELFS_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH
  "GoogleTest's source tree (Debian's googletest package)")

set(CMAKE_SHARED_LIBRARY_PREFIX "")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
add_link_options(-static)

# Where a pinned release file comes from: the local folder when one is named, else `url`.
function(velfs_third_party_location out fileName url)
  if(VELFS_THIRD_PARTY_DIR)
    get_filename_component(folder "${VELFS_THIRD_PARTY_DIR}" ABSOLUTE BASE_DIR "${PROJECT_SOURCE_DIR}")
    if(NOT EXISTS "${folder}/${fileName}")
      message(FATAL_ERROR "VELFS_THIRD_PARTY_DIR=${folder} holds no ${fileName}")
    endif()
    set(${out} "${folder}/${fileName}" PARENT_SCOPE)
  else()
    set(${out} "${url}" PARENT_SCOPE)
  endif()
endfunction()

# zlib: the static library of libz-mingw-w64-dev.
find_library(VELFS_ZLIB_STATIC NAMES libz.a REQUIRED)
find_path(VELFS_ZLIB_INCLUDE_DIR zlib.h REQUIRED)
add_library(velfs_zlib STATIC IMPORTED GLOBAL)
set_target_properties(velfs_zlib PROPERTIES
  IMPORTED_LOCATION ${VELFS_ZLIB_STATIC}
  INTERFACE_INCLUDE_DIRECTORIES ${VELFS_ZLIB_INCLUDE_DIR})

# SQLite 3.50.4: sqlite3.c and sqlite3.h of the amalgamation, one static library.
velfs_third_party_location(VELFS_SQLITE_URL sqlite-amalgamation-3500400.zip
  https://sqlite.org/2025/sqlite-amalgamation-3500400.zip)
FetchContent_Declare(velfs_sqlite_amalgamation
  URL ${VELFS_SQLITE_URL}
  URL_HASH SHA256=1d3049dd0f830a025a53105fc79fd2ab9431aea99e137809d064d8ee8356b032
  DOWNLOAD_EXTRACT_TIMESTAMP TRUE)
FetchContent_MakeAvailable(velfs_sqlite_amalgamation)
add_library(velfs_sqlite3 STATIC ${velfs_sqlite_amalgamation_SOURCE_DIR}/sqlite3.c)
target_include_directories(velfs_sqlite3 SYSTEM PUBLIC ${velfs_sqlite_amalgamation_SOURCE_DIR})
# Extensions are never loaded: the library opens only the databases its callers name.
# FTS5 as in Debian's build, so that a database with a virtual table made elsewhere reads alike
# on both platforms (the library declines such a table either way).
target_compile_definitions(velfs_sqlite3 PRIVATE SQLITE_OMIT_LOAD_EXTENSION SQLITE_ENABLE_FTS5)
add_library(PkgConfig::SQLITE3 ALIAS velfs_sqlite3)

# zziplib 0.13.80: the core library libzzip only (the mmapped and fseeko variants, tools, tests,
# docs and wrappers are off), static, installed into the build directory.
velfs_third_party_location(VELFS_ZZIPLIB_URL zziplib-0.13.80.tar.gz
  https://github.com/gdraheim/zziplib/archive/refs/tags/v0.13.80.tar.gz)
set(VELFS_ZZIPLIB_PREFIX ${PROJECT_BINARY_DIR}/_deps/zziplib-install)
set(VELFS_ZZIPLIB_LIBRARY ${VELFS_ZZIPLIB_PREFIX}/lib/libzzip-0.a)
ExternalProject_Add(velfs_zziplib_build
  URL ${VELFS_ZZIPLIB_URL}
  URL_HASH SHA256=cb3a35a1769b0370a8e83455627a1474ca615755ca87e79b959f0278bd5b1317
  DOWNLOAD_EXTRACT_TIMESTAMP TRUE
  PREFIX ${PROJECT_BINARY_DIR}/_deps/zziplib
  INSTALL_DIR ${VELFS_ZZIPLIB_PREFIX}
  CMAKE_ARGS
    -DCMAKE_TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE}
    -DCMAKE_BUILD_TYPE=Release
    -DCMAKE_INSTALL_PREFIX=<INSTALL_DIR>
    -DCMAKE_INSTALL_LIBDIR=lib
    -DCMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER}
    -DBUILD_SHARED_LIBS=OFF
    -DZZIPMMAPPED=OFF -DZZIPFSEEKO=OFF -DZZIPBINS=OFF -DZZIPTEST=OFF -DZZIPDOCS=OFF
    -DZZIPWRAP=OFF -DZZIPSDL=OFF
    -DZZIP_COMPAT=OFF -DZZIP_PKGCONFIG=OFF -DZZIP_LIBTOOL=OFF -DZZIP_LIBLATEST=OFF
    -DZLIB_LIBRARY=${VELFS_ZLIB_STATIC} -DZLIB_INCLUDE_DIR=${VELFS_ZLIB_INCLUDE_DIR}
  BUILD_BYPRODUCTS ${VELFS_ZZIPLIB_LIBRARY})
file(MAKE_DIRECTORY ${VELFS_ZZIPLIB_PREFIX}/include)
add_library(velfs_zziplib STATIC IMPORTED GLOBAL)
set_target_properties(velfs_zziplib PROPERTIES
  IMPORTED_LOCATION ${VELFS_ZZIPLIB_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${VELFS_ZZIPLIB_PREFIX}/include
  INTERFACE_LINK_LIBRARIES velfs_zlib)
add_dependencies(velfs_zziplib velfs_zziplib_build)
add_library(PkgConfig::ZZIPLIB ALIAS velfs_zziplib)

# GoogleTest for the test programs: built with Windows' own threading primitives, never
# installed. Its targets keep their package names (GTest::gtest, GTest::gtest_main,
# GTest::gmock), and find_package(GTest) finds a package file that names them.
if(VELFS_BUILD_TESTS)
  set(gtest_disable_pthreads ON CACHE BOOL "GoogleTest uses Windows threading" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "GoogleTest is not installed with velFS" FORCE)
  add_subdirectory(${VELFS_GOOGLETEST_SOURCE_DIR} ${PROJECT_BINARY_DIR}/_deps/googletest
    EXCLUDE_FROM_ALL SYSTEM)
  file(WRITE ${PROJECT_BINARY_DIR}/_deps/packages/GTestConfig.cmake
    "# GTest::gtest, GTest::gtest_main and GTest::gmock are targets of this build.\n")
  set(GTest_DIR ${PROJECT_BINARY_DIR}/_deps/packages CACHE PATH "GoogleTest built here" FORCE)
endif()

# CLI11 (header-only, Debian's libcli11-dev) for the velfs tool. Its headers are reached through
# a folder of their own: the build machine's /usr/include must not come before MinGW's headers.
if(VELFS_BUILD_TOOLS)
  find_path(VELFS_CLI11_INCLUDE_DIR CLI/CLI.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH
    NO_DEFAULT_PATH REQUIRED)
  set(VELFS_CLI11_FOLDER ${PROJECT_BINARY_DIR}/_deps/cli11-include)
  file(MAKE_DIRECTORY ${VELFS_CLI11_FOLDER})
  file(CREATE_LINK ${VELFS_CLI11_INCLUDE_DIR}/CLI ${VELFS_CLI11_FOLDER}/CLI SYMBOLIC)
  add_library(velfs_cli11 INTERFACE IMPORTED GLOBAL)
  set_target_properties(velfs_cli11 PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${VELFS_CLI11_FOLDER})
  add_library(CLI11::CLI11 ALIAS velfs_cli11)
  file(WRITE ${PROJECT_BINARY_DIR}/_deps/packages/CLI11Config.cmake
    "# CLI11::CLI11 is a target of this build.\n")
  set(CLI11_DIR ${PROJECT_BINARY_DIR}/_deps/packages CACHE PATH "CLI11 headers" FORCE)
endif()
