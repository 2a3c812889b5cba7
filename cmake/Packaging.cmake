# Debian packages, one per install component (cpack -G DEB in the build tree,
# or scripts/package). Dependencies on Qt and the C++ runtime are computed by
# dpkg-shlibdeps; those between our own packages are stated here.
set(CPACK_PACKAGE_NAME veltraxrayhardware)
set(CPACK_PACKAGE_VENDOR "KORUX-KORUX2 plug-in developers")
set(KORUX_PACKAGE_MAINTAINER "KORUX-KORUX2 plug-in developers <korux@example.org>"
  CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${KORUX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Plug-in for KORUX-KORUX2 intra-oral X-ray sensors")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://localhost/korux")
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development plugin tool)
set(CPACK_PACKAGE_FILE_NAME veltraxrayhardware-${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The shlibs file of the framework library's package (the only library here
# with a versioned SONAME), and the ldconfig trigger that goes with it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
file(WRITE ${CMAKE_BINARY_DIR}/packaging/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/triggers)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps finds the project's own libraries in the build tree; the
# virtual bridge answers for libft4222.so, which no Debian package provides.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib ${CMAKE_BINARY_DIR}/lib/virtual)

set(korux_runtime_package libveltraxrayhardware${PROJECT_VERSION_MAJOR})
set(korux_exact_runtime "${korux_runtime_package} (= ${PROJECT_VERSION}-1)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${korux_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Host framework for X-ray hardware plug-ins
 The library that host imaging applications link and that hardware
 plug-ins derive from: families, units, statuses and commands.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libveltraxrayhardware-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${korux_exact_runtime}, qtbase5-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Host framework for X-ray hardware plug-ins (development files)
 The header, the CMake package (find_package(VeltraXRayHardware)) and the
 pkg-config file (veltraxrayhardware) to build a host application.")

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME veltraxrayhardware-korux)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_DEPENDS "${korux_exact_runtime}")
set(CPACK_DEBIAN_PLUGIN_PACKAGE_RECOMMENDS "korux")
set(CPACK_COMPONENT_PLUGIN_DESCRIPTION "Hardware plug-in for KORUX-KORUX2 intra-oral X-ray sensors
 Finds the sensors on their FT4222 USB bridges, reads their identity and
 calibration files, arms them, follows the exposure and delivers the image.
 It needs the bridge vendor's libft4222.so to drive sensors, or the virtual
 bridge of the korux package to run without them.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME korux)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION science)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${korux_exact_runtime}, veltraxrayhardware-korux (= ${PROJECT_VERSION}-1)")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "Command-line host and virtual bridge for KORUX-KORUX2 sensors
 korux loads the plug-in as a host application does: it lists the sensors,
 copies their calibration files, takes and saves images and checks the
 sensor's FPGA. The virtual bridge emulates the sensors, their flash and
 their FPGA, so that hosts can be built and tested without hardware.")

# Every package carries the copyright file and the Debian changelog in its
# documentation directory.
execute_process(COMMAND gzip -9 -n -c ${CMAKE_SOURCE_DIR}/packaging/changelog
  OUTPUT_FILE ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
foreach(component runtime development plugin tool)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/copyright ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()

include(CPack)
