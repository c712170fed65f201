# SPDX-License-Identifier: Apache-2.0
# uafd_install_gz(FILE DESTINATION COMPONENT): installs a text file compressed, without time stamps, so
# that every build produces the same file.
function(uafd_install_gz file destination component)
  cmake_path(GET file FILENAME name)
  set(compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND gzip -9cn ${CMAKE_CURRENT_SOURCE_DIR}/${file} > ${compressed}
    DEPENDS ${file}
    VERBATIM)
  string(MAKE_C_IDENTIFIER "${component}_${name}_gz" target)
  add_custom_target(${target} ALL DEPENDS ${compressed})
  add_dependencies(package_files ${target})
  install(FILES ${compressed} DESTINATION ${destination} COMPONENT ${component})
endfunction()

# Everything that packages contain, and nothing else. Files with install rules must be dependencies of
# this.
add_custom_target(package_files)
