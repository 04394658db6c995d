# The Debian packages: each install component with what Debian asks of a package
# besides. `script/package` makes them as they are given away; any build can.
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)

file(STRINGS ${debian}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^orb-sdk \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog begins with '${newest}', not with ${PROJECT_VERSION}")
endif()
orb_compress(packaging/debian/changelog changelog changelog)

# orb_package(COMPONENT NAME SECTION DEPENDS DESCRIPTION [CONTROL_FILE...]): the
# description's first line is the synopsis; what a package's programs are linked
# to is added to its dependencies.
macro(orb_package component name section depends description)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${description}")
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA ${ARGN})
  install(FILES ${debian}/copyright ${changelog}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  if(EXISTS ${debian}/lintian/${name})
    install(FILES ${debian}/lintian/${name}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  endif()
endmacro()

set(same_library "liborb-sdk3 (= ${PROJECT_VERSION})")
orb_package(sdk liborb-sdk3 libs "" "Telemetry library for native daemons
Daemons log samples against numeric KPI ids; campaigns decide at run time which
of them are collected, over which windows and for whom. Samples are aggregated
in the process, compressed, sealed for their owner and handed to the system.
.
This package has the shared library."
  ${debian}/sdk/triggers)
orb_package(sdk_dev liborb-sdk-dev libdevel "${same_library}"
  "Telemetry library for native daemons (development files)
Headers, CMake and pkg-config files for daemons that log samples against
numeric KPI ids, which campaigns then collect.")
orb_package(services orb-services admin
  "${same_library}, dbus, systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles"
  "Telemetry manager and spool for native daemons
orb-managerd registers the daemons that use liborb_sdk and runs campaigns on
them; orb-hald takes what they upload and keeps it in a spool. Both are units
that the administrator enables."
  ${debian}/services/postinst ${debian}/services/prerm ${debian}/services/postrm)
orb_package(tools orbctl admin "${same_library}"
  "Command line for telemetry campaigns
Checks, starts and stops campaigns on the daemons of this machine, makes keys,
and decodes the uploads that come of it.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS orb-services)
set(CPACK_DEBIAN_SERVICES_PACKAGE_RECOMMENDS orbctl)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "orb SDK")
set(CPACK_PACKAGE_CONTACT "orb SDK maintainers <maintainers@orb-sdk.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# CPack's own default, which it leaves out: else every synopsis would be the project's.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL sdk sdk_dev services tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE orb-sdk)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/collector
  ${CMAKE_BINARY_DIR}/platform/linux)
include(CPack)
