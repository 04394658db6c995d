# Install rules in three components (sdk, services, tools; sdk_dev is what a
# build against the sdk needs on top) and the Debian packages made of them.
include(CMakePackageConfigHelpers)

install(TARGETS orb_sdk EXPORT orb_sdkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sdk NAMELINK_COMPONENT sdk_dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS orb_platform
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sdk NAMELINK_SKIP)
install(FILES include/orb_sdk.h include/orb_encrypt.h include/orb_event_log.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT sdk_dev)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/orb_sdk)
install(EXPORT orb_sdkTargets NAMESPACE orb_sdk:: DESTINATION ${config_dir} COMPONENT sdk_dev)
configure_package_config_file(cmake/orb_sdkConfig.cmake.in
  ${CMAKE_BINARY_DIR}/orb_sdkConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/orb_sdkConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/orb_sdkConfig.cmake ${CMAKE_BINARY_DIR}/orb_sdkConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT sdk_dev)
configure_file(packaging/linux/orb_sdk.pc.in ${CMAKE_BINARY_DIR}/orb_sdk.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/orb_sdk.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT sdk_dev)

install(TARGETS orb-managerd orb-hald RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  COMPONENT services)
install(TARGETS orbctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "orb SDK")
set(CPACK_PACKAGE_CONTACT "orb SDK maintainers <maintainers@orb-sdk.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL sdk sdk_dev services tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/collector
  ${CMAKE_BINARY_DIR}/platform/linux)
set(CPACK_DEBIAN_SDK_PACKAGE_NAME liborb-sdk3)
set(CPACK_DEBIAN_SDK_DEV_PACKAGE_NAME liborb-sdk-dev)
set(CPACK_DEBIAN_SDK_DEV_PACKAGE_DEPENDS "liborb-sdk3 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_SERVICES_PACKAGE_NAME orb-services)
set(CPACK_DEBIAN_SERVICES_PACKAGE_DEPENDS "liborb-sdk3 (= ${PROJECT_VERSION}), dbus")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orbctl)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liborb-sdk3 (= ${PROJECT_VERSION})")
include(CPack)
