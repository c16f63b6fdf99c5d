# Cross build for Windows x64 with Debian's mingw-w64 compilers (the posix
# thread model, which std::thread and std::mutex need), run under Wine.
#
#   cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64-x86_64.cmake \
#         -DCMAKE_PREFIX_PATH=<prefix holding libuv and GoogleTest for Windows>
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZELSOCKET_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZELSOCKET_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZELSOCKET_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZELSOCKET_MINGW_TRIPLE}-windres)

# Headers and libraries come from the Windows side only; programs from the host.
# Packages may also come from CMAKE_PREFIX_PATH, where the cross-built libuv
# and GoogleTest live: the host's own Linux packages are never looked at,
# because find_package searches CMAKE_PREFIX_PATH first and the toolchain's
# root for the rest.
set(CMAKE_FIND_ROOT_PATH /usr/${ZELSOCKET_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Lets CMake run what it built (tests, gtest discovery) through Wine.
find_program(ZELSOCKET_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(ZELSOCKET_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZELSOCKET_WINE})
endif()
