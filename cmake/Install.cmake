# What `cmake --install` gives an embedding program: the component's archive, the headers of the
# component and its contracts, and the files by which CMake and pkg-config find them.
#
# The archive is static on purpose: it asks its host for the functions that the contracts declare,
# and these are the embedding program's own.
include(CMakePackageConfigHelpers)

set(RL_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/region-locator)
set(RL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/RegionLocator)

install(TARGETS RegionLocator rl_contracts EXPORT RegionLocatorTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library)
install(EXPORT RegionLocatorTargets NAMESPACE RegionLocator::
  DESTINATION ${RL_PACKAGE_DIR} COMPONENT library)
install(DIRECTORY RegionLocator common Sfs XelControl DESTINATION ${RL_INCLUDE_DIR}
  COMPONENT library FILES_MATCHING PATTERN "*.h")

configure_package_config_file(cmake/RegionLocatorConfig.cmake.in
  ${PROJECT_BINARY_DIR}/RegionLocatorConfig.cmake INSTALL_DESTINATION ${RL_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/RegionLocatorConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
configure_file(cmake/region-locator.pc.in ${PROJECT_BINARY_DIR}/region-locator.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/RegionLocatorConfig.cmake
  ${PROJECT_BINARY_DIR}/RegionLocatorConfigVersion.cmake DESTINATION ${RL_PACKAGE_DIR}
  COMPONENT library)
install(FILES ${PROJECT_BINARY_DIR}/region-locator.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)
