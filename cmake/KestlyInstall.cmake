# Headers keep their place under include/CoreKestly/; hosts link CoreKestly::CoreKestly
# through find_package(CoreKestly) or use pkg-config corekestly.
include(CMakePackageConfigHelpers)

install(TARGETS CoreKestly EXPORT CoreKestlyTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/CoreKestly/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/CoreKestly
  FILES_MATCHING PATTERN "*.h" PATTERN "*Internal.h" EXCLUDE)
install(TARGETS kestly RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(EXPORT CoreKestlyTargets NAMESPACE CoreKestly::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/CoreKestlyConfig.cmake.in
  ${PROJECT_BINARY_DIR}/CoreKestlyConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CoreKestlyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/CoreKestlyConfig.cmake ${PROJECT_BINARY_DIR}/CoreKestlyConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)

configure_file(${PROJECT_SOURCE_DIR}/cmake/corekestly.pc.in ${PROJECT_BINARY_DIR}/corekestly.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/corekestly.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
