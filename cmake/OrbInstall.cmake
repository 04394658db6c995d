# Install rules in four components: sdk (what a client runs with), sdk_dev (what
# its build needs on top), services and tools. Nothing installed names the prefix:
# it may be moved as a whole.
include(CMakePackageConfigHelpers)

# orb_compress(FILE NAME RESULT): FILE as NAME.gz in the build tree, its path in
# RESULT. Made when configuring, so that any one component can be installed.
function(orb_compress file name result)
  set(target ${CMAKE_BINARY_DIR}/packaging/${name}.gz)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging)
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${file} OUTPUT_FILE ${target}
    COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${file})
  set(${result} ${target} PARENT_SCOPE)
endfunction()

# orb_install_manual(COMPONENT PAGE...): pages of docs/man.
function(orb_install_manual component)
  foreach(page ${ARGN})
    string(REGEX REPLACE ".*\\." "" section ${page})
    orb_compress(docs/man/${page} ${page} compressed)
    install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
      COMPONENT ${component})
  endforeach()
endfunction()

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
orb_install_manual(services orb-managerd.8 orb-hald.8)
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
orb_install_manual(tools orbctl.1)
install(FILES packaging/linux/orbctl.bash-completion
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME orbctl COMPONENT tools)
