# What `cmake --install` puts where (the Debian packages of debian/ split it
# into the framework library, its development files, the plug-in, the virtual
# bridge and korux).
include(CMakePackageConfigHelpers)

install(TARGETS VeltraXRayHardware EXPORT VeltraXRayHardwareTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/VeltraXRayHardware COMPONENT development)

# A plug-in is loaded by its file name: no version, no name link.
install(TARGETS VeltraXRayKORUX
  LIBRARY DESTINATION ${KORUX_INSTALL_PLUGINDIR} COMPONENT plugin NAMELINK_SKIP)

install(TARGETS virtualbridge
  LIBRARY DESTINATION ${KORUX_INSTALL_BRIDGEDIR} COMPONENT bridge NAMELINK_SKIP)
# The recording bridge, beside it (korux --record).
install(TARGETS recordbridge
  LIBRARY DESTINATION ${KORUX_INSTALL_RECORDDIR} COMPONENT tool NAMELINK_SKIP)

if(TARGET korux)
  install(TARGETS korux RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
endif()

# The udev rule goes where udev reads the rules of installed packages.
foreach(rule ${CMAKE_SOURCE_DIR}/packaging/udev/60-korux.rules)
  if(EXISTS ${rule})
    install(FILES ${rule} DESTINATION lib/udev/rules.d COMPONENT tool)
  endif()
endforeach()
# Manual pages are installed compressed, without a time stamp inside.
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/korux.1.gz
  COMMAND gzip -9 -n -c ${CMAKE_SOURCE_DIR}/docs/korux.1 > ${CMAKE_BINARY_DIR}/packaging/korux.1.gz
  DEPENDS ${CMAKE_SOURCE_DIR}/docs/korux.1 VERBATIM)
add_custom_target(korux_manual ALL DEPENDS ${CMAKE_BINARY_DIR}/packaging/korux.1.gz)
install(FILES ${CMAKE_BINARY_DIR}/packaging/korux.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
if(EXISTS ${CMAKE_SOURCE_DIR}/packaging/bash-completion/korux)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/bash-completion/korux
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tool)
endif()
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/scenario.md ${CMAKE_SOURCE_DIR}/docs/trace.md
  ${CMAKE_SOURCE_DIR}/LICENSE
  DESTINATION ${KORUX_INSTALL_DOCDIR} COMPONENT tool)

# The CMake package: the framework as an imported target, and where the
# plug-in and the virtual bridge lie, all relative to the package's own
# location so that an unpacked tree works wherever it is.
install(EXPORT VeltraXRayHardwareTargets
  NAMESPACE VeltraXRayHardware::
  DESTINATION ${KORUX_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/VeltraXRayHardwareConfig.cmake.in
  ${CMAKE_BINARY_DIR}/cmake/VeltraXRayHardwareConfig.cmake
  INSTALL_DESTINATION ${KORUX_INSTALL_CMAKEDIR}
  PATH_VARS KORUX_INSTALL_PLUGINDIR KORUX_INSTALL_BRIDGEDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/VeltraXRayHardwareConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/cmake/VeltraXRayHardwareConfig.cmake
  ${CMAKE_BINARY_DIR}/cmake/VeltraXRayHardwareConfigVersion.cmake
  DESTINATION ${KORUX_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config, with the installed paths written out in full below ${prefix}
# (a directory given as an absolute path stays as it is). The prefix is the
# one of the install itself (cmake --install --prefix), so the file is
# written then; a tree moved after it takes --define-variable=prefix=….
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(KORUX_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(KORUX_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
foreach(dir PLUGINDIR BRIDGEDIR)
  if(IS_ABSOLUTE "${KORUX_INSTALL_${dir}}")
    set(KORUX_PC_${dir} "${KORUX_INSTALL_${dir}}")
  else()
    set(KORUX_PC_${dir} "\${prefix}/${KORUX_INSTALL_${dir}}")
  endif()
endforeach()
set(KORUX_PC_PREFIX "@KORUX_PC_PREFIX@")
configure_file(${CMAKE_SOURCE_DIR}/packaging/veltraxrayhardware.pc.in
  ${CMAKE_BINARY_DIR}/packaging/veltraxrayhardware.pc.in @ONLY)
install(CODE "set(KORUX_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_BINARY_DIR}/packaging/veltraxrayhardware.pc.in\"
    \"${CMAKE_BINARY_DIR}/packaging/install/veltraxrayhardware.pc\" @ONLY)"
  COMPONENT development)
install(FILES ${CMAKE_BINARY_DIR}/packaging/install/veltraxrayhardware.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
