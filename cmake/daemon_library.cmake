# SPDX-License-Identifier: ISC
# wds_daemon_library(NAME SOURCES files... [DEPENDS libraries...])
#
# One static library per folder of the daemon, linked against exactly the
# libraries that folder may use (DEPENDS: the arrows down the floors). Two
# checks run with every build, so that an arrow the floors forbid fails it:
#   - NAME_link_check links every object of the library against DEPENDS
#     alone: a call into any other folder is an undefined reference;
#   - the folder's #include "folder/..." lines may name only its own folder
#     and the folders of DEPENDS.
set(WDS_LINK_CHECK_MAIN ${CMAKE_BINARY_DIR}/link_check_main.cpp)
file(WRITE ${WDS_LINK_CHECK_MAIN} "int main() { return 0; }\n")

function(wds_daemon_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  add_library(${name} STATIC ${arg_SOURCES})
  # The daemon's compile flags stay with its own code: a tool or test that
  # links a library keeps its own.
  target_link_libraries(${name} PRIVATE wds_daemon_flags PUBLIC ${arg_DEPENDS})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  set_target_properties(${name} PROPERTIES WDS_FOLDER ${folder})

  add_executable(${name}_link_check ${WDS_LINK_CHECK_MAIN})
  target_link_libraries(${name}_link_check PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,${name}>")

  # Dependencies are defined first (the folders are added bottom-up).
  set(allowed ${folder})
  foreach(dep IN LISTS arg_DEPENDS)
    get_target_property(dep_folder ${dep} WDS_FOLDER)
    list(APPEND allowed ${dep_folder})
  endforeach()
  file(GLOB files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${name}_includes.stamp)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DFOLDER=${folder} "-DALLOWED=${allowed}" "-DFILES=${files}"
            -P ${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${files} ${PROJECT_SOURCE_DIR}/cmake/check_includes.cmake
    COMMENT "Checking the includes of ${folder}/" VERBATIM)
  add_custom_target(${name}_include_check ALL DEPENDS ${stamp})
  add_dependencies(${name} ${name}_include_check)
endfunction()
