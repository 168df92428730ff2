# One static library per folder of src/. Each folder's CMakeLists.txt names
# the libraries its code may use:
#   zarvent_layer(cycle USES statistics ntp state hardware platform)
# It links exactly those, and before the library compiles, check_layers.cmake
# reads every #include "folder/..." of its sources and headers: one that
# reaches a folder not on the list (a sibling, or a layer above) fails the
# build.
function(zarvent_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 LAYER "" "" "USES;EXCLUDE")
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  foreach(excluded ${LAYER_EXCLUDE})
    list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${excluded})
  endforeach()
  set(stamp ${PROJECT_BINARY_DIR}/layers/${name}.checked)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DLAYER=${name} "-DALLOWED=${LAYER_USES}" -DSTAMP=${stamp}
            -P ${PROJECT_SOURCE_DIR}/cmake/check_layers.cmake ${sources} ${headers}
    DEPENDS ${sources} ${headers} ${PROJECT_SOURCE_DIR}/cmake/check_layers.cmake
    COMMENT "Checking the includes of src/${name}"
    VERBATIM)
  add_custom_target(zarvent_${name}_layers DEPENDS ${stamp})
  add_library(zarvent_${name} STATIC ${sources})
  add_dependencies(zarvent_${name} zarvent_${name}_layers)
  target_include_directories(zarvent_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  set(uses)
  foreach(used ${LAYER_USES})
    list(APPEND uses zarvent_${used})
  endforeach()
  target_link_libraries(zarvent_${name} PUBLIC ${uses} Threads::Threads)
  set_property(GLOBAL APPEND PROPERTY ZARVENT_LAYERS ${name})
endfunction()
