cmake_minimum_required(VERSION 3.25)
# Run by nv_layer's build step: cmake -DNV_FOLDER=<folder> -DNV_ALLOWED=<a,b,...>
#   -DNV_FOLDERS=<every layer folder, a,b,...> -DNV_SOURCE_DIR=<dir> -DNV_STAMP=<file> -P check_layer.cmake
# Fails when a file of <folder> includes a header of a layer folder outside <allowed>; touches
# the stamp file otherwise.
string(REPLACE "," ";" allowed "${NV_ALLOWED}")
string(REPLACE "," ";" folders "${NV_FOLDERS}")
file(GLOB_RECURSE files ${NV_SOURCE_DIR}/${NV_FOLDER}/*.h ${NV_SOURCE_DIR}/${NV_FOLDER}/*.cpp ${NV_SOURCE_DIR}/${NV_FOLDER}/*.c)
set(failures 0)
foreach(file IN LISTS files)
  file(STRINGS ${file} includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"[A-Za-z0-9_]+/")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([A-Za-z0-9_]+)/.*$" "\\1" folder "${line}")
    if(folder IN_LIST folders AND NOT folder IN_LIST allowed)
      file(RELATIVE_PATH name ${NV_SOURCE_DIR} ${file})
      message("${name}: error: '${line}' reaches ${folder}/, a layer above ${NV_FOLDER}/ "
        "(${NV_FOLDER}/ may include: ${allowed})")
      math(EXPR failures "${failures} + 1")
    endif()
  endforeach()
endforeach()
if(failures GREATER 0)
  message(FATAL_ERROR "${failures} include(s) in ${NV_FOLDER}/ reach a higher layer")
endif()
file(TOUCH ${NV_STAMP})
