# Installed tree: headers under include/orb_device, libraries under lib/,
# pkg-config files and a CMake package (targets orb_device::orb_device and
# orb_device::orb_spectrum, the colorimetry, which needs no USB).
include(CMakePackageConfigHelpers)

install(TARGETS VarnelBase orb_device orb_spectrum EXPORT orb_deviceTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orb_device)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orb_device FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/varnelbase/orb_base_exception.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orb_device)

install(EXPORT orb_deviceTargets NAMESPACE orb_device::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orb_device)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/orb_deviceConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/orb_deviceConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orb_device)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/orb_deviceConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orb_deviceConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/orb_deviceConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orb_device)

configure_file(${CMAKE_CURRENT_LIST_DIR}/orb_device.pc.in ${CMAKE_CURRENT_BINARY_DIR}/orb_device.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orb_device.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
configure_file(${CMAKE_CURRENT_LIST_DIR}/orb_spectrum.pc.in ${CMAKE_CURRENT_BINARY_DIR}/orb_spectrum.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orb_spectrum.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Seat access to the sensors' device nodes; applied by udevadm (see README).
install(FILES ${PROJECT_SOURCE_DIR}/udev/60-orb-sensor.rules DESTINATION lib/udev/rules.d)
