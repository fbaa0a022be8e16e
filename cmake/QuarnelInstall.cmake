# cmake --install: headers, the shared library, a CMake package
# (find_package(quarnel) gives quarnel::quarnel) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS quarnel EXPORT quarnelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(DIRECTORY quarnel/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarnel
  FILES_MATCHING PATTERN "*.h"
  PATTERN "internal" EXCLUDE)

install(EXPORT quarnelTargets NAMESPACE quarnel::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarnel)

configure_package_config_file(cmake/quarnelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/quarnelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarnel)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/quarnelConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/quarnelConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/quarnelConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarnel)

configure_file(cmake/quarnel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/quarnel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quarnel.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
