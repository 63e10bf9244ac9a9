# Cross-build for 64-bit Windows with Debian's MinGW-w64 (POSIX threads
# variant: apt-get install g++-mingw-w64-x86-64-posix).  Tests and tools
# run under Wine when it is installed (apt-get install wine wine64):
#   cmake -S . -B build/windows -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VOXELUNE_MINGW x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VOXELUNE_MINGW}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VOXELUNE_MINGW}-g++-posix)
set(CMAKE_RC_COMPILER ${VOXELUNE_MINGW}-windres)
set(CMAKE_OBJDUMP ${VOXELUNE_MINGW}-objdump CACHE FILEPATH "objdump for PE files")

# Headers and libraries of the target only; programs of the build machine;
# CMake packages also from CMAKE_PREFIX_PATH as given (an installed
# Windows build of Voxelune, for a host program).
set(CMAKE_FIND_ROOT_PATH /usr/${VOXELUNE_MINGW})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Windows programs built here run under Wine (tests, test discovery).
find_program(VOXELUNE_WINE NAMES wine wine64 wine-stable)
if(VOXELUNE_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VOXELUNE_WINE})
endif()
