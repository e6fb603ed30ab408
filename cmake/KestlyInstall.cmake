# Headers keep their place under include/CoreKestly/; hosts link CoreKestly::CoreKestly
# through find_package(CoreKestly) or use pkg-config corekestly.
include(CMakePackageConfigHelpers)

install(TARGETS CoreKestly EXPORT CoreKestlyTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/CoreKestly/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/CoreKestly
  FILES_MATCHING PATTERN "*.h" PATTERN "*Internal.h" EXCLUDE)
if(KESTLY_BUILD_TOOLS)
  install(TARGETS kestly RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT CoreKestlyTargets NAMESPACE CoreKestly::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/CoreKestlyConfig.cmake.in
  ${PROJECT_BINARY_DIR}/CoreKestlyConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CoreKestlyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/CoreKestlyConfig.cmake ${PROJECT_BINARY_DIR}/CoreKestlyConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)

# The prefix is found from where the .pc file lies, so that an installation under any prefix
# (cmake --install --prefix) or moved as a whole names its own folders. The language standard
# is left to the host: the headers ask for C++20 or later themselves.
file(RELATIVE_PATH KESTLY_PC_PREFIX_FROM_PCFILEDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KESTLY_PC_PREFIX_FROM_PCFILEDIR "${KESTLY_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/corekestly.pc.in ${PROJECT_BINARY_DIR}/corekestly.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/corekestly.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
