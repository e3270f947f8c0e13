# The folders of the product are layers, bottom first:
#   mcl < protocol < quarantine < client < setup < service < app
# (tools, tests, bench and fuzz sit on top). A folder's code may include its own headers and
# those of the folders it depends on, directly or through them; an include that reaches a
# higher folder fails the build.
#
# nv_layer_folder(<folder> [DEPENDS <folder>...])
#   Declares the folders that <folder> builds on directly; after those, and also where the
#   folder has no target (the Windows-only folders in the native build).
# nv_layer(<target> FOLDER <folder> [DEPENDS <folder>...])
#   Declares the folder as above when it is not yet, and makes <target> wait for a check of every
#   #include "x/..." line in <folder>'s sources and headers.
set(NV_LAYER_FOLDERS mcl protocol quarantine client setup service app tools tests bench fuzz)

function(nv_layer_folder folder)
  cmake_parse_arguments(L "" "" "DEPENDS" ${ARGN})
  set(allowed ${folder})
  foreach(dep IN LISTS L_DEPENDS)
    get_property(declared GLOBAL PROPERTY NV_LAYER_CLOSURE_${dep} SET)
    if(NOT declared)
      message(FATAL_ERROR "nv_layer_folder(${folder}): ${dep} is not declared yet")
    endif()
    get_property(closure GLOBAL PROPERTY NV_LAYER_CLOSURE_${dep})
    list(APPEND allowed ${closure})
  endforeach()
  list(REMOVE_DUPLICATES allowed)
  set_property(GLOBAL PROPERTY NV_LAYER_CLOSURE_${folder} "${allowed}")
endfunction()

function(nv_layer target)
  cmake_parse_arguments(L "" "FOLDER" "DEPENDS" ${ARGN})
  get_property(declared GLOBAL PROPERTY NV_LAYER_CLOSURE_${L_FOLDER} SET)
  if(NOT declared)
    nv_layer_folder(${L_FOLDER} DEPENDS ${L_DEPENDS})
  endif()
  get_property(allowed GLOBAL PROPERTY NV_LAYER_CLOSURE_${L_FOLDER})

  file(GLOB_RECURSE files CONFIGURE_DEPENDS
    ${CMAKE_SOURCE_DIR}/${L_FOLDER}/*.h ${CMAKE_SOURCE_DIR}/${L_FOLDER}/*.cpp ${CMAKE_SOURCE_DIR}/${L_FOLDER}/*.c)
  string(REPLACE ";" "," allowed_arg "${allowed}")
  string(REPLACE ";" "," folders_arg "${NV_LAYER_FOLDERS}")
  set(stamp ${CMAKE_BINARY_DIR}/layers/${target}.checked)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DNV_FOLDER=${L_FOLDER} -DNV_ALLOWED=${allowed_arg} -DNV_FOLDERS=${folders_arg}
      -DNV_SOURCE_DIR=${CMAKE_SOURCE_DIR} -DNV_STAMP=${stamp} -P ${CMAKE_SOURCE_DIR}/cmake/check_layer.cmake
    DEPENDS ${files} ${CMAKE_SOURCE_DIR}/cmake/check_layer.cmake
    COMMENT "Checking the includes of ${L_FOLDER}/ (may include: ${allowed})"
    VERBATIM)
  add_custom_target(${target}_layer_check DEPENDS ${stamp})
  add_dependencies(${target} ${target}_layer_check)
endfunction()
