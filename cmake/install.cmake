# Installation: libraries, public headers, schema scripts, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kovasharing kovaplatform EXPORT kovasharingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kovasharing DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${KOVA_SCHEMA_FILES} DESTINATION ${KOVA_SCHEMA_DIR})

install(EXPORT kovasharingTargets NAMESPACE kovasharing::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kovasharing)
configure_package_config_file(cmake/kovasharingConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kovasharing)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kovasharing)

configure_file(cmake/kovasharing.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kovasharing.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kovasharing.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
