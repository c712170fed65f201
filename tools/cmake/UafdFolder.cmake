# SPDX-License-Identifier: Apache-2.0
# How each folder of the daemon is built: as one static library, with the repository root as the only include
# root, without exceptions, and with warnings as errors.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_package(Threads REQUIRED)

# Warnings and include root, for product and test code alike.
add_library(uafd_options INTERFACE)
target_include_directories(uafd_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(uafd_options INTERFACE -Wall -Wextra -Wconversion -Werror)
# Members have no mark, so no local variable of their class's functions may have the same name. Only Clang
# checks this: GCC would also refuse a constructor's parameter with the name of the member that it sets.
target_compile_options(uafd_options INTERFACE $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wshadow>)
target_link_libraries(uafd_options INTERFACE Threads::Threads)

# uafd_folder(NAME [OBJECT] SOURCES file... [USES folder...])
# tools/check/includes compares USES with the folder's #include lines.
function(uafd_folder name)
  cmake_parse_arguments(FOLDER "OBJECT" "" "SOURCES;USES" ${ARGN})
  set(kind STATIC)
  if(FOLDER_OBJECT)
    set(kind OBJECT)
  endif()
  add_library(${name} ${kind} ${FOLDER_SOURCES})
  target_compile_options(${name} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
  # The fuzzers follow the branches of the daemon's own code.
  target_compile_options(${name} PRIVATE
    $<$<BOOL:${UAFD_FUZZ}>:-fsanitize-coverage=inline-8bit-counters,pc-table>)
  target_link_libraries(${name} PUBLIC uafd_options ${FOLDER_USES})
endfunction()

# daemon/uac_user.h: constants shared by the control device's two users.
add_library(uac_user INTERFACE)
target_link_libraries(uac_user INTERFACE uafd_options)

# Compiles once what most test code includes: uafd_test_headers(NAME option...). Targets use it with
# uafd_use_test_headers(NAME target...), which compiles them with the same options.
function(uafd_test_headers name)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "")
  add_library(${name} OBJECT ${source})
  target_compile_options(${name} PRIVATE ${ARGN})
  target_link_libraries(${name} PRIVATE uafd_options GTest::gtest GTest::gmock)
  target_precompile_headers(${name} PRIVATE <algorithm> <atomic> <functional> <memory> <optional>
    <string> <thread> <vector> <gmock/gmock.h> <gtest/gtest.h>)
endfunction()

function(uafd_use_test_headers name)
  get_target_property(options ${name} COMPILE_OPTIONS)
  foreach(target ${ARGN})
    target_compile_options(${target} PRIVATE "$<$<COMPILE_LANGUAGE:CXX>:${options}>")
    target_link_libraries(${target} PRIVATE uafd_options GTest::gtest)
    target_precompile_headers(${target} REUSE_FROM ${name})
  endforeach()
endfunction()
