# Headers keep their place under include/CoreKestly/; hosts link CoreKestly::CoreKestly
# through find_package(CoreKestly) or use pkg-config corekestly.
#
# Every file belongs to one of three components, which are also the Debian packages
# (cmake/KestlyPackaging.cmake): Runtime is what a program linked with the library needs at
# run time, Development what a host needs to build against it, Tools the kestly program.
include(CMakePackageConfigHelpers)

install(TARGETS CoreKestly EXPORT CoreKestlyTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
# Header by header rather than the folder filtered, which would also make the folders that
# hold only private headers, empty.
file(GLOB_RECURSE KESTLY_PUBLIC_HEADERS RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/CoreKestly/*.h)
list(FILTER KESTLY_PUBLIC_HEADERS EXCLUDE REGEX "Internal\\.h$")
foreach(header IN LISTS KESTLY_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder}
    COMPONENT Development)
endforeach()
if(KESTLY_BUILD_TOOLS)
  install(TARGETS kestly RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
endif()

install(EXPORT CoreKestlyTargets NAMESPACE CoreKestly::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/CoreKestlyConfig.cmake.in
  ${PROJECT_BINARY_DIR}/CoreKestlyConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CoreKestlyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/CoreKestlyConfig.cmake ${PROJECT_BINARY_DIR}/CoreKestlyConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/CoreKestly COMPONENT Development)

# The prefix is found from where the .pc file lies, so that an installation under any prefix
# (cmake --install --prefix) or moved as a whole names its own folders. The language standard
# is left to the host: the headers ask for C++20 or later themselves.
file(RELATIVE_PATH KESTLY_PC_PREFIX_FROM_PCFILEDIR "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KESTLY_PC_PREFIX_FROM_PCFILEDIR "${KESTLY_PC_PREFIX_FROM_PCFILEDIR}")
# The static library's users link its dependencies themselves; the shared library's do not,
# and pkg-config reads the modules named here even for --cflags, so naming them for the
# shared library would make a host install five -dev packages it never uses.
set(KESTLY_PC_REQUIRES_PRIVATE "")
if(NOT BUILD_SHARED_LIBS)
  set(KESTLY_PC_REQUIRES_PRIVATE "Requires.private: libcrypto sqlite3 sndfile libutf8proc libcurl")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/corekestly.pc.in ${PROJECT_BINARY_DIR}/corekestly.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/corekestly.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT Development)
