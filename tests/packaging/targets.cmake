# SPDX-License-Identifier: Apache-2.0
# cmake -D FOLDERS="FOLDER;..." -P targets.cmake: prints what CMake would build in these folders and
# below, without examples and without what needs ALSA as programs have it on other systems, the plugins and
# the bridge: a line "TARGET FILE" for each source and "TARGET LIBRARY" for each of the project's libraries
# that a target links. For this the commands that define targets are replaced by
# ones that print, and the others by ones that do nothing.
cmake_minimum_required(VERSION 3.25)

function(print_of target)
  foreach(file ${ARGN})
    cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
    cmake_path(RELATIVE_PATH file BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
    message(NOTICE "${target} ${file}")
  endforeach()
endfunction()

function(add_library target)
  list(FILTER ARGN EXCLUDE REGEX "^(STATIC|SHARED|MODULE|OBJECT|INTERFACE)$")
  print_of(${target} ${ARGN})
endfunction()
function(add_executable target)
  print_of(${target} ${ARGN})
endfunction()
function(target_link_libraries target)
  list(FILTER ARGN EXCLUDE REGEX "^(PUBLIC|PRIVATE|INTERFACE)$|/|::")
  foreach(library ${ARGN})
    message(NOTICE "${target} lib${library}")
  endforeach()
endfunction()
function(uafd_folder target)
  cmake_parse_arguments(FOLDER "OBJECT" "" "SOURCES;USES" ${ARGN})
  print_of(${target} ${FOLDER_SOURCES})
  target_link_libraries(${target} ${FOLDER_USES})
endfunction()
# The Java class.
function(add_custom_command)
  cmake_parse_arguments(COMMAND "" "" "OUTPUT;DEPENDS;COMMAND" ${ARGN})
  list(FILTER COMMAND_DEPENDS INCLUDE REGEX "\\.java$")
  print_of(java ${COMMAND_DEPENDS})
endfunction()

function(visit folder)
  set(CMAKE_CURRENT_SOURCE_DIR ${folder})
  _include(${folder}/CMakeLists.txt)
endfunction()
function(add_subdirectory folder)
  set(path ${CMAKE_CURRENT_SOURCE_DIR}/${folder})
  if(NOT path MATCHES "/companion/(alsa|bridge|examples)$")
    visit(${path})
  endif()
endfunction()
foreach(command add_custom_target add_dependencies configure_file find_library find_path find_program
    include install set_property
    set_source_files_properties set_target_properties target_compile_options
    target_include_directories target_link_options target_precompile_headers target_sources uafd_install_gz
    write_basic_package_version_file)
  cmake_language(EVAL CODE "function(${command})\nendfunction()")
endforeach()

set(PROJECT_SOURCE_DIR ${CMAKE_SOURCE_DIR})
foreach(folder ${FOLDERS})
  visit(${PROJECT_SOURCE_DIR}/${folder})
endforeach()
