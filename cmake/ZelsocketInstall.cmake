include(CMakePackageConfigHelpers)

install(TARGETS zelsocket EXPORT zelsocketTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# On Windows the DLLs the library loads go beside it in bin/, where the
# programs that use it look for them.
if(WIN32)
  if(TARGET uv)
    get_target_property(type uv TYPE)
    if(type STREQUAL "SHARED_LIBRARY")
      install(FILES $<TARGET_FILE:uv> DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
  endif()
  if(ZELSOCKET_MINGW_RUNTIME)
    install(FILES ${ZELSOCKET_MINGW_RUNTIME} DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endif()
install(DIRECTORY include/zelsocket DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

set(ZELSOCKET_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zelsocket)
install(EXPORT zelsocketTargets NAMESPACE zelsocket:: DESTINATION ${ZELSOCKET_CMAKE_DIR})
configure_package_config_file(cmake/zelsocketConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zelsocketConfig.cmake
  INSTALL_DESTINATION ${ZELSOCKET_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelsocketConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zelsocketConfig.cmake
              ${PROJECT_BINARY_DIR}/zelsocketConfigVersion.cmake
              ${PROJECT_SOURCE_DIR}/cmake/ZelsocketLibuv.cmake
        DESTINATION ${ZELSOCKET_CMAKE_DIR})

# pkg-config: libuv is a public dependency because <zelsocket/sync.h> embeds its
# lock types.
# Relocatable: the prefix is found from where the .pc file lies.
file(RELATIVE_PATH ZELSOCKET_PC_TO_PREFIX
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/zelsocket.pc.in ${PROJECT_BINARY_DIR}/zelsocket.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelsocket.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
