# Install tree: headers under include/rtvox/, libraries under lib/, a
# pkg-config file and a CMake package (find_package(rtvox)). The host platform
# emulation is installed beside the library (rtvox::vornhost) so that
# workstation builds of the firmware can link and run against it.
include(CMakePackageConfigHelpers)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/rtvox DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/include/vornhost DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(TARGETS rtvox rtvox_static vornhost
  EXPORT rtvoxTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT rtvoxTargets NAMESPACE rtvox:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rtvox)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/rtvoxConfig.cmake.in
  ${PROJECT_BINARY_DIR}/rtvoxConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rtvox)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/rtvoxConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/rtvoxConfig.cmake ${PROJECT_BINARY_DIR}/rtvoxConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rtvox)

configure_file(${PROJECT_SOURCE_DIR}/cmake/rtvox.pc.in ${PROJECT_BINARY_DIR}/rtvox.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rtvox.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
