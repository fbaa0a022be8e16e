# cmake --install: headers, the shared library, a CMake package
# (find_package(quarnel) gives quarnel::quarnel) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS quarnel EXPORT quarnelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Public headers only: internal/ folders, the Windows platform folder and the headers that only the
# library's own tests use stay behind.
install(DIRECTORY quarnel/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quarnel
  FILES_MATCHING PATTERN "*.h"
  PATTERN "internal" EXCLUDE
  PATTERN "win32" EXCLUDE
  PATTERN "testdata.h" EXCLUDE
  PATTERN "compress_reference.h" EXCLUDE)

install(EXPORT quarnelTargets NAMESPACE quarnel::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarnel)

configure_package_config_file(cmake/quarnelConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/quarnelConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarnel)
# What a release promises (docs/conformance.md, "Binary interface"): before
# 1.0, a request for 0.x is met by 0.x.y only (same minor, any patch at or
# above the one asked for); from 1.0 on, by any later release of the same major.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(compatibility SameMinorVersion)
else()
  set(compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/quarnelConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY ${compatibility})
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/quarnelConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/quarnelConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quarnel)

# The pkg-config file finds the prefix from its own place (${pcfiledir}), so
# that `cmake --install --prefix` anywhere gives a working file. Folders given
# as absolute paths stay absolute.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(QUARNEL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(QUARNEL_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH _qn_up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" _qn_up "${_qn_up}")
  set(QUARNEL_PC_PREFIX "\${pcfiledir}/${_qn_up}")
  set(QUARNEL_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(QUARNEL_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(QUARNEL_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(cmake/quarnel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/quarnel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quarnel.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
