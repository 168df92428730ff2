# Fails when a source or header of one folder of src/ includes a header of a
# folder its library may not use. Run by the build for each library, before
# it compiles (cmake/layers.cmake):
#   cmake -DLAYER=cycle -DALLOWED="statistics;ntp;state;hardware;platform"
#         -DSTAMP=file -P check_layers.cmake file...
cmake_minimum_required(VERSION 3.25)
set(files)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE 1 ${last})
  set(arg "${CMAKE_ARGV${i}}")
  if(arg MATCHES "\\.(cpp|h)$")
    list(APPEND files "${arg}")
  endif()
endforeach()
set(allowed ${LAYER} ${ALLOWED})
set(errors "")
foreach(file ${files})
  file(STRINGS "${file}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"[a-z_]+/")
  foreach(line ${includes})
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([a-z_]+)/.*" "\\1" used "${line}")
    if(NOT used IN_LIST allowed)
      string(APPEND errors "  ${file}: ${line} (${LAYER} may use only ${allowed})\n")
    endif()
  endforeach()
endforeach()
if(errors)
  message(FATAL_ERROR "an include reaches a library this one may not use:\n${errors}")
endif()
file(WRITE "${STAMP}" "")
