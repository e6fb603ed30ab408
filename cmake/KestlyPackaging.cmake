# Debian packages, one per install component (cpack -G DEB in the build folder, or
# scripts/package.sh):
#   libcorekestly<major>  Runtime: the shared library
#   libcorekestly-dev     Development: headers, the CMake package, corekestly.pc, the .so link
#   kestly                Tools: the kestly program
# Packages install under /usr, where Debian keeps libraries in the multiarch folder: the build
# has to be configured with -DCMAKE_INSTALL_PREFIX=/usr for GNUInstallDirs to choose it, and
# cpack refuses a build configured otherwise (cmake/KestlyCPackProject.cmake).
if(NOT BUILD_SHARED_LIBS)
  # A static archive makes no runtime package; nothing is packaged.
  return()
endif()

set(KESTLY_PACKAGE_MAINTAINER "CoreKestly maintainers" CACHE STRING
  "The Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME corekestly)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${KESTLY_PACKAGE_MAINTAINER}")
# CPackDeb puts this summary above every component's description unless it is CPack's own
# default; left at that default, each package's description starts with a synopsis of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_KESTLY_CONFIGURED_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/KestlyCPackProject.cmake)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
if(KESTLY_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL Tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# Depends come from what the binaries link (dpkg-shlibdeps) and, for the packages built
# together, from the components: libcorekestly-dev and kestly need the library of the very
# same build. dpkg-shlibdeps is shown the library in the build folder so that it can read
# kestly's needs; which package holds it is the component dependency's to say.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
get_target_property(_kestly_library_folder CoreKestly BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${_kestly_library_folder}")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# A shlibs file, so that a host's own package gets its dependency on the library from
# dpkg-shlibdeps in turn.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libcorekestly${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The sample search reads the locate database when there is one.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS plocate)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION} (shared library)
Watches a project folder, keeps the hashes of its samples in caches, moves and copies items
as queued actions, downloads with progress and finds samples on the machine, telling its
host everything as events on the main thread.")

# The public headers include only the standard library, so a host needs no other -dev
# package to compile against them, and the shared library brings its own dependencies.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcorekestly-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION} (development files)
The C++20 headers, the CMake package (find_package(CoreKestly), target
CoreKestly::CoreKestly) and the pkg-config module corekestly.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kestly)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS Runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Command-line program of the Kestly desktop client's core
Watches a folder and prints its changes, hashes files and folders through the caches,
reads project manifests, finds samples and downloads URLs.")

include(CPack)
