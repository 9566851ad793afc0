# The libraries around ours: {fmt}, CLI11, RapidJSON and zlib for the program, GoogleTest for the tests. Of zlib a
# distribution has binaries for all targets, of the others for its own system alone. For other targets (-m32, Windows)
# they are built from what its packages bring along: sources of GoogleTest, and headers that need no library of the
# others. elfutils names the functions of recorded programs; without it, qvx tells them by their addresses.
# libbabeltrace2 reads CTF for `qvx import`, and GNU libmicrohttpd serves the page of `qvx view`, where they are.
option(QUORVEX_DEPENDENCIES_FROM_SOURCE "Build what the tools and tests need from sources and headers in /usr"
  ${CMAKE_CROSSCOMPILING})

if(QUORVEX_BUILD_TOOLS)
  set(ZLIB_USE_STATIC_LIBS ${QUORVEX_DEPENDENCIES_FROM_SOURCE}) # programs for others carry it within themselves
  find_package(ZLIB REQUIRED)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_LIBRARIES dw elf)
  check_cxx_source_compiles("#include <elfutils/libdwfl.h>
    int main() { return dwfl_errno(); }" QUORVEX_HAS_ELFUTILS)
  set(CMAKE_REQUIRED_LIBRARIES microhttpd)
  check_cxx_source_compiles("#include <microhttpd.h>
    #include <netinet/in.h>
    int main() { return MHD_is_feature_supported(MHD_FEATURE_THREAD_NAMES) == MHD_YES; }" QUORVEX_HAS_MICROHTTPD)
  unset(CMAKE_REQUIRED_LIBRARIES)
  if(NOT QUORVEX_HAS_MICROHTTPD)
    message(STATUS "GNU libmicrohttpd (package libmicrohttpd-dev) is missing: qvx will have no verb view")
  endif()
  if(NOT QUORVEX_HAS_ELFUTILS)
    message(STATUS "elfutils (package libdw-dev) is missing: qvx will not name the functions of recorded programs")
  endif()
endif()

if(NOT QUORVEX_DEPENDENCIES_FROM_SOURCE)
  if(QUORVEX_BUILD_TOOLS)
    find_package(CLI11 REQUIRED)
    find_package(fmt REQUIRED)
    find_package(RapidJSON REQUIRED)
    find_package(PkgConfig)
    if(PkgConfig_FOUND)
      pkg_check_modules(babeltrace2 IMPORTED_TARGET babeltrace2)
    endif()
    set(QUORVEX_HAS_BABELTRACE ${babeltrace2_FOUND})
    if(NOT QUORVEX_HAS_BABELTRACE)
      message(STATUS "libbabeltrace2 (packages libbabeltrace2-dev and pkg-config) is missing: qvx will not import CTF")
    endif()
  endif()
  if(QUORVEX_BUILD_TESTS)
    find_package(GTest REQUIRED)
  endif()
  return()
endif()

if(QUORVEX_BUILD_TOOLS)
  # The rest of /usr/include belongs to another system, so these folders get a directory of their own.
  set(foreign_headers "${PROJECT_BINARY_DIR}/dependencies/include")
  file(MAKE_DIRECTORY "${foreign_headers}")
  foreach(library CLI fmt rapidjson)
    if(NOT EXISTS "/usr/include/${library}")
      message(FATAL_ERROR "/usr/include/${library} is missing (packages libcli11-dev, libfmt-dev and rapidjson-dev)")
    endif()
    file(CREATE_LINK "/usr/include/${library}" "${foreign_headers}/${library}" SYMBOLIC)
  endforeach()
  add_library(quorvex_foreign_headers INTERFACE)
  target_include_directories(quorvex_foreign_headers SYSTEM INTERFACE "${foreign_headers}")
  target_compile_definitions(quorvex_foreign_headers INTERFACE FMT_HEADER_ONLY=1)
  add_library(CLI11::CLI11 ALIAS quorvex_foreign_headers)
  add_library(fmt::fmt ALIAS quorvex_foreign_headers)
endif()

if(QUORVEX_BUILD_TESTS)
  set(INSTALL_GTEST OFF CACHE BOOL "GoogleTest is for our tests only" FORCE)
  add_subdirectory(/usr/src/googletest/googletest "${PROJECT_BINARY_DIR}/dependencies/googletest" EXCLUDE_FROM_ALL)
  # Warnings in it are not ours to mend.
  set_target_properties(gtest gtest_main PROPERTIES COMPILE_WARNING_AS_ERROR OFF)
endif()
