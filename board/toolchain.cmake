# SPDX-License-Identifier: Apache-2.0
# AArch64 Linux with Debian's cross compiler. Its own C and C++ libraries are used; alsa-lib and
# GoogleTest come from the arm64 packages that tools/setup unpacks.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc-12)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++-12)

get_filename_component(UAFD_ROOT ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
if(NOT UAFD_ARM64)
  set(UAFD_ARM64 ${UAFD_ROOT}/build/arm64)
endif()
get_property(in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT in_try_compile)
  execute_process(COMMAND ${UAFD_ROOT}/tools/setup RESULT_VARIABLE setup_result)
  if(setup_result)
    message(FATAL_ERROR "tools/setup could not prepare this machine; see above.")
  endif()
endif()

set(CMAKE_FIND_ROOT_PATH ${UAFD_ARM64}/dev)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES ${UAFD_ARM64}/dev/usr/include)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${UAFD_ARM64}/dev/usr/include)
set(CMAKE_EXE_LINKER_FLAGS_INIT -L${UAFD_ARM64}/dev/usr/lib/aarch64-linux-gnu)
