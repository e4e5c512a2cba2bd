# Read by cpack once per generator, after CPackConfig.cmake: the choices that differ between the
# Debian packages and the vendor bundle (CMakeLists.txt describes both).
# Every time stamp CPack and the tools it runs (dpkg-deb) write is the build's SOURCE_DATE_EPOCH.
set(ENV{SOURCE_DATE_EPOCH} ${CPACK_SIGNING_SOURCE_DATE_EPOCH})
if(CPACK_GENERATOR STREQUAL "TGZ")
  # One archive of the bundle's components, under one top folder named like the archive.
  set(CPACK_COMPONENTS_ALL ${CPACK_SIGNING_BUNDLE_COMPONENTS})
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_PACKAGE_FILE_NAME ${CPACK_SIGNING_BUNDLE_NAME})
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_PACKAGING_INSTALL_PREFIX /)
endif()
if(CPACK_GENERATOR STREQUAL "DEB")
  # Each package's description starts with its own synopsis (CPACK_DEBIAN_<COMPONENT>_DESCRIPTION):
  # CPack prepends the project's summary unless it is its default one.
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CPACK_DEFAULT_PACKAGE_DESCRIPTION_SUMMARY}")
endif()
