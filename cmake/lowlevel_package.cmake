# Debian packages by CPack (cpack -G DEB): liblowlevel0 with the shared library and the tool, and
# liblowlevel-dev with the headers, the link name and the CMake and pkg-config files.
set(CPACK_PACKAGE_NAME lowlevel)
set(CPACK_PACKAGE_VENDOR "lowlevel developers")
set(CPACK_PACKAGE_CONTACT "lowlevel developers <lowlevel@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://example.org/lowlevel")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liblowlevel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The dynamic linker's cache is refreshed by a trigger (CPack adds ldconfig calls as well).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "B-tree index files, located and compressed files, command lines
The lowlevel library keeps persistent B-tree indexes in files (fixed-width
keys with 32-bit values, duplicates allowed, optional locale mapping of
keys), opens files by logical location (volumes and well-known
directories, re-opened after a volume change), reads compressed files as
if they were plain ones, and parses command-line texts of names and values.

This package holds the shared library and the lowlevel command-line tool.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liblowlevel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "B-tree index files, located and compressed files - development files
The lowlevel library keeps persistent B-tree indexes in files, opens files
by logical location, reads compressed files as if they were plain ones and
parses command-line texts of names and values.

This package holds the C++ headers, the link name of the library, the CMake
package (find_package(lowlevel)) and the pkg-config file.")

# Every package carries its copyright file and changelog where Debian expects them.
foreach(component runtime dev)
  string(TOUPPER ${component} upper)
  set(docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright DESTINATION ${docdir} COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/packaging/changelog.gz DESTINATION ${docdir}
          COMPONENT ${component})
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog)
execute_process(COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
include(CPack)
