# Install rules: the shared library, the public headers, the tool, its manual page and completion,
# a CMake package (lowlevel::lowlevel) and a pkg-config file. Components: `runtime` (library and
# tool) and `dev` (headers, link name, CMake and pkg-config files); the Debian packages follow them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The public headers and exactly what they include (checked by compiling the consumer against an
# installed prefix only).
set(LOWLEVEL_PUBLIC_HEADERS
    lowlevel/support/support.h
    lowlevel/files/filebase.h lowlevel/files/cmpfilbs.h lowlevel/files/file.h
    lowlevel/files/blockcache.h lowlevel/files/blockcache_impl.h
    lowlevel/btree/btree.h lowlevel/btree/btreetools.h
    lowlevel/cmdline/cmdline.h lowlevel/cmdline/pointervector.h)
foreach(header IN LISTS LOWLEVEL_PUBLIC_HEADERS)
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir}
          COMPONENT dev)
endforeach()
install(FILES ${LOWLEVEL_GENERATED_INCLUDE}/lowlevel/lowlevel_export.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lowlevel COMPONENT dev)

target_include_directories(lowlevel INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS lowlevel EXPORT lowlevelTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)

set(LOWLEVEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/lowlevel)
install(EXPORT lowlevelTargets NAMESPACE lowlevel:: DESTINATION ${LOWLEVEL_CMAKE_DIR}
        COMPONENT dev)
get_target_property(LOWLEVEL_LIBRARY_TYPE lowlevel TYPE)
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/lowlevelConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/packaging/lowlevelConfig.cmake
                              INSTALL_DESTINATION ${LOWLEVEL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/lowlevelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/lowlevelConfig.cmake
              ${PROJECT_BINARY_DIR}/packaging/lowlevelConfigVersion.cmake
        DESTINATION ${LOWLEVEL_CMAKE_DIR} COMPONENT dev)

# The .pc file finds its prefix from its own place, so an unpacked package works where it lies.
set(LOWLEVEL_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH LOWLEVEL_PC_TO_PREFIX /${LOWLEVEL_PC_DIR} /)
string(REGEX REPLACE "/$" "" LOWLEVEL_PC_TO_PREFIX "${LOWLEVEL_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/lowlevel.pc.in
               ${PROJECT_BINARY_DIR}/packaging/lowlevel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/lowlevel.pc DESTINATION ${LOWLEVEL_PC_DIR}
        COMPONENT dev)
