# Each library's include directory holds a link to its own folder and nothing else, so
# `#include "engine/TorrentEngine.h"` works in the library and in whatever links it, while a
# header of a folder that is not linked is not found: the build, not a review, keeps the
# dependencies pointing one way.
function(velix_expose_folder target folder source)
  set(dir ${CMAKE_BINARY_DIR}/include/${target})
  file(MAKE_DIRECTORY ${dir})
  file(CREATE_LINK ${source} ${dir}/${folder} SYMBOLIC)
  target_include_directories(${target} PUBLIC ${dir})
endfunction()

# One static library per source folder. Sources are globbed so that a new file in a folder
# needs no edit here; CONFIGURE_DEPENDS makes the build notice it.
function(velix_folder_library name)
  cmake_parse_arguments(ARG "" "" "PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS
    ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  add_library(${name} STATIC ${sources})
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  velix_expose_folder(${name} ${folder} ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE velix_warnings ${ARG_PRIVATE_LIBS})
endfunction()
