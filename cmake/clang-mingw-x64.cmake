# Cross-compiles for 64-bit Windows with Debian's clang: the MinGW-w64 headers and import
# libraries, GCC's MinGW libstdc++ (posix threads) and the MinGW linker, as the GCC build uses.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(MINGW_TRIPLE x86_64-w64-mingw32)
set(NV_MINGW_GCC_DIR /usr/lib/gcc/${MINGW_TRIPLE}/12-posix CACHE PATH "GCC's MinGW-w64 runtime (libstdc++)")

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${MINGW_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${MINGW_TRIPLE})
set(CMAKE_SYSROOT /usr/${MINGW_TRIPLE})
set(CMAKE_RC_COMPILER ${MINGW_TRIPLE}-windres)
set(CMAKE_DLLTOOL ${MINGW_TRIPLE}-dlltool)
set(CMAKE_AR ${MINGW_TRIPLE}-ar)
set(CMAKE_RANLIB ${MINGW_TRIPLE}-ranlib)
set(CMAKE_FIND_ROOT_PATH /usr/${MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# clang does not find GCC's C++ library for this target by itself.
set(nv_cxx ${NV_MINGW_GCC_DIR}/include/c++)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${nv_cxx} ${nv_cxx}/${MINGW_TRIPLE} ${nv_cxx}/backward)
# The MinGW linker; -pthread puts winpthread into the static link group, where the static
# libgcc's thread-local storage needs it.
set(nv_link "-fuse-ld=bfd -pthread -L${NV_MINGW_GCC_DIR}")
# Executables carry their runtime so that nothing but Windows DLLs is needed.
set(CMAKE_EXE_LINKER_FLAGS_INIT "${nv_link} -static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${nv_link} -static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${nv_link}")
# Tests run the Windows binaries through Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tests/wine/run.sh)
