# LZ4 from Debian's source package (scripts/setup.sh unpacks it into .deps/lz4).
set(NV_LZ4_DIR ${NV_DEPS_DIR}/lz4/lib)
if(NOT EXISTS ${NV_LZ4_DIR}/lz4frame.c)
  message(FATAL_ERROR "LZ4 sources not found in ${NV_LZ4_DIR}; run scripts/setup.sh first")
endif()
add_library(lz4 STATIC ${NV_LZ4_DIR}/lz4.c ${NV_LZ4_DIR}/lz4hc.c ${NV_LZ4_DIR}/lz4frame.c ${NV_LZ4_DIR}/xxhash.c)
target_include_directories(lz4 SYSTEM PUBLIC ${NV_LZ4_DIR})

if(NV_SANITIZE)
  target_compile_options(lz4 PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer)
endif()

# GoogleTest from the sources that Debian's googletest package ships.
set(NV_GTEST_DIR /usr/src/googletest CACHE PATH "GoogleTest sources")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
add_subdirectory(${NV_GTEST_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
