# Installation: libraries, public headers, schema scripts, CMake package and pkg-config file.
include(CMakePackageConfigHelpers)

# Installed anywhere but the system's own prefix, the sharing library finds the platform
# library beside it ($ORIGIN), so that a program linked against it runs with nothing else set
# (a program's own run path does not reach the libraries it loads). The system prefix needs
# none, and Debian's packages must carry none.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set_target_properties(kovasharing PROPERTIES INSTALL_RPATH "$ORIGIN")
  set(KOVA_PC_RPATH " -Wl,-rpath,\${libdir}")
else()
  set(KOVA_PC_RPATH "")
endif()

# The same for a program installed into `dir` (relative to the prefix): it finds the libraries
# through a run path relative to itself, so a prefix can be moved as a whole.
function(kova_install_rpath target dir)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH to_lib /${dir} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_lib}")
  endif()
endfunction()

# Components: runtime (what programs need to run), dev (what building against it needs).
install(TARGETS kovasharing kovaplatform EXPORT kovasharingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kovasharing DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(FILES ${KOVA_SCHEMA_FILES} DESTINATION ${KOVA_SCHEMA_DIR} COMPONENT runtime)

install(EXPORT kovasharingTargets NAMESPACE kovasharing::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kovasharing COMPONENT dev)
configure_package_config_file(cmake/kovasharingConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kovasharing)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kovasharingConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kovasharing COMPONENT dev)

# The pkg-config file finds the prefix from its own place, however deep the library directory
# is (lib, or lib/<multiarch> as in the Debian packages).
file(RELATIVE_PATH KOVA_PC_PREFIX_FROM_PCDIR ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KOVA_PC_PREFIX_FROM_PCDIR "${KOVA_PC_PREFIX_FROM_PCDIR}")
configure_file(cmake/kovasharing.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kovasharing.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kovasharing.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
