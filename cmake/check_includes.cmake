# SPDX-License-Identifier: ISC
cmake_minimum_required(VERSION 3.25)
# cmake -DFOLDER=qmi -DALLOWED="qmi;wan;log" -DFILES="..." -P check_includes.cmake
# Fails when a file of FOLDER includes a project header outside ALLOWED.
set(bad "")
foreach(file IN LISTS FILES)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"/]+/")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^\"]*\"([^\"/]+)/.*$" "\\1" included ${line})
    if(NOT included IN_LIST ALLOWED)
      get_filename_component(name ${file} NAME)
      string(APPEND bad "\n  ${FOLDER}/${name}: ${line}")
    endif()
  endforeach()
endforeach()
if(bad)
  string(REPLACE ";" " " allowed "${ALLOWED}")
  message(FATAL_ERROR "${FOLDER}/ may include only from ${allowed}:${bad}")
endif()
