# Read by cpack before it packages. The install rules took their library folder from the
# prefix the build was configured with: under any other than /usr the packages would hold
# the library in /usr/lib instead of Debian's multiarch folder.
if(NOT CPACK_KESTLY_CONFIGURED_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "This build is configured for ${CPACK_KESTLY_CONFIGURED_PREFIX}; Debian "
    "packages need -DCMAKE_INSTALL_PREFIX=/usr (scripts/package.sh configures it).")
endif()
