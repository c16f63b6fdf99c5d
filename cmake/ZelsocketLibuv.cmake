# Finds libuv (1.44 or later) and names the target to link in ZELSOCKET_LIBUV.
#
# A libuv built with its own CMake installs a CMake package (targets `uv`, the
# DLL or shared object, and `uv_a`, the static archive): the Windows build uses
# that, found through CMAKE_PREFIX_PATH or libuv_DIR.  Debian's libuv1-dev ships
# a pkg-config file only, which is the fallback.  Shared by the build and the
# installed package's config file.
find_package(libuv CONFIG QUIET)
if(TARGET uv)
  set(ZELSOCKET_LIBUV uv)
else()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(LIBUV REQUIRED IMPORTED_TARGET libuv>=1.44)
  set(ZELSOCKET_LIBUV PkgConfig::LIBUV)
endif()

# A program finds the DLLs it loads in its own folder: puts libuv's DLL into
# `dir` after each build of `target`.
function(zelsocket_copy_libuv_runtime target dir)
  if(WIN32 AND TARGET uv)
    get_target_property(type uv TYPE)
    if(type STREQUAL "SHARED_LIBRARY")
      add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
        COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:uv> ${dir})
    endif()
  endif()
endfunction()
