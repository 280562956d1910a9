# One static library per source folder. Sources are globbed so that a new file in a folder
# needs no edit here; CONFIGURE_DEPENDS makes the build notice it.
function(velix_folder_library name)
  cmake_parse_arguments(ARG "" "" "PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS
    ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE velix_warnings ${ARG_PRIVATE_LIBS})
endfunction()
