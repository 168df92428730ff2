# Fails when a source of one layer of src/ includes a header of a layer above
# it. Run by the build for each layer, before its library is compiled:
#   cmake -DLAYER=cycle -DBELOW="platform;hardware;ntp;state" -DSTAMP=file
#         -P check_layers.cmake file...
# The layers, lowest first, are in ZARVENT_LAYERS of CMakeLists.txt.
cmake_minimum_required(VERSION 3.25)
set(files)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE 1 ${last})
  set(arg "${CMAKE_ARGV${i}}")
  if(arg MATCHES "\\.(cpp|h)$")
    list(APPEND files "${arg}")
  endif()
endforeach()
set(allowed ${LAYER} ${BELOW})
set(errors "")
foreach(file ${files})
  file(STRINGS "${file}" includes REGEX "^#include \"[a-z_]+/")
  foreach(line ${includes})
    string(REGEX REPLACE "^#include \"([a-z_]+)/.*" "\\1" layer "${line}")
    if(NOT layer IN_LIST allowed)
      string(APPEND errors "  ${file}: ${line} (${LAYER} may include only ${allowed})\n")
    endif()
  endforeach()
endforeach()
if(errors)
  message(FATAL_ERROR "an include runs from a lower layer to a higher one:\n${errors}")
endif()
file(WRITE "${STAMP}" "")
