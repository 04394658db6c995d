# Install rules in four components and the Debian packages made of them: sdk
# (what a client runs with), sdk_dev (what its build needs on top), services
# and tools. Nothing installed names the prefix: it may be moved as a whole.
include(CMakePackageConfigHelpers)

install(TARGETS orb_sdk LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT sdk NAMELINK_COMPONENT sdk_dev)
install(TARGETS orb_platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT sdk NAMELINK_SKIP)
install(FILES include/orb_sdk.h include/orb_encrypt.h include/orb_event_log.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT sdk_dev)

# The imported target is written by hand: an exported one would drag in the
# platform's targets, which a client neither has nor needs.
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/orb_sdk)
configure_package_config_file(cmake/orb_sdkConfig.cmake.in
  ${CMAKE_BINARY_DIR}/orb_sdkConfig.cmake INSTALL_DESTINATION ${config_dir}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/orb_sdkConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/orb_sdkConfig.cmake ${CMAKE_BINARY_DIR}/orb_sdkConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT sdk_dev)

file(RELATIVE_PATH ORB_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(packaging/linux/orb_sdk.pc.in ${CMAKE_BINARY_DIR}/orb_sdk.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/orb_sdk.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT sdk_dev)

install(TARGETS orb-managerd orb-hald RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  COMPONENT services)
install(FILES docs/man/orb-managerd.8 docs/man/orb-hald.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT services)
# Units, bus policy, user and folders: under the prefix like the rest, though the
# system looks for them below /usr only.
set(ORB_SYSTEM_FILES
  orb-managerd.service lib/systemd/system/orb-managerd.service
  orb-hald.service     lib/systemd/system/orb-hald.service
  orb.conf             share/dbus-1/system.d/orb.conf
  orb.sysusers         lib/sysusers.d/orb.conf
  orb.tmpfiles         lib/tmpfiles.d/orb.conf)
while(ORB_SYSTEM_FILES)
  list(POP_FRONT ORB_SYSTEM_FILES file target)
  cmake_path(GET target PARENT_PATH folder)
  cmake_path(GET target FILENAME name)
  install(FILES packaging/linux/${file} DESTINATION ${folder} RENAME ${name} COMPONENT services)
endwhile()

install(TARGETS orbctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES docs/man/orbctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES packaging/linux/orbctl.bash-completion
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME orbctl COMPONENT tools)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "orb SDK")
set(CPACK_PACKAGE_CONTACT "orb SDK maintainers <maintainers@orb-sdk.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL sdk sdk_dev services tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/collector
  ${CMAKE_BINARY_DIR}/platform/linux)
set(CPACK_COMPONENT_SDK_DESCRIPTION "Telemetry library for native daemons")
set(CPACK_DEBIAN_SDK_PACKAGE_NAME liborb-sdk3)
set(CPACK_DEBIAN_SDK_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_SDK_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/linux/sdk/triggers)
set(CPACK_COMPONENT_SDK_DEV_DESCRIPTION "Headers and build files of the telemetry library")
set(CPACK_DEBIAN_SDK_DEV_PACKAGE_NAME liborb-sdk-dev)
set(CPACK_DEBIAN_SDK_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_SDK_DEV_PACKAGE_DEPENDS "liborb-sdk3 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_SERVICES_DESCRIPTION "Telemetry manager and HAL of a Linux system")
set(CPACK_DEBIAN_SERVICES_PACKAGE_NAME orb-services)
set(CPACK_DEBIAN_SERVICES_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_SERVICES_PACKAGE_DEPENDS "liborb-sdk3 (= ${PROJECT_VERSION}), dbus")
set(CPACK_DEBIAN_SERVICES_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/linux/services/postinst)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Runs telemetry campaigns and reads what they bring")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orbctl)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "liborb-sdk3 (= ${PROJECT_VERSION})")
include(CPack)
