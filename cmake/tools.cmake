# The administrator's command-line tool. It links only the shared libraries (the sharing
# library, and the platform's for the failed-login store), so it can use nothing but their
# exported API, as any application would.
add_executable(kovasharing_cli tools/cli/main.cpp tools/cli/args.cpp tools/cli/commands.cpp
  tools/cli/links.cpp tools/cli/output.cpp)
set_target_properties(kovasharing_cli PROPERTIES OUTPUT_NAME kovasharing
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tools)
target_compile_options(kovasharing_cli PRIVATE ${KOVA_WARNINGS})
target_compile_definitions(kovasharing_cli PRIVATE KOVA_VERSION="${PROJECT_VERSION}")
# libqrencode draws the links' QR codes.
find_package(PkgConfig REQUIRED)
pkg_check_modules(QRENCODE REQUIRED IMPORTED_TARGET libqrencode)
target_include_directories(kovasharing_cli PRIVATE ${CMAKE_BINARY_DIR}/generated)
target_link_libraries(kovasharing_cli PRIVATE kovasharing kovaplatform PkgConfig::QRENCODE)
kova_install_rpath(kovasharing_cli ${CMAKE_INSTALL_BINDIR})
install(TARGETS kovasharing_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# Manual pages are installed compressed, as Debian keeps them; -n leaves the name and time
# out of the archive so that rebuilds give the same bytes.
set(KOVA_CLI_MANPAGE ${CMAKE_CURRENT_SOURCE_DIR}/doc/kovasharing.1)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/tools/kovasharing.1.gz
  COMMAND gzip -9 -n -c ${KOVA_CLI_MANPAGE} > ${CMAKE_BINARY_DIR}/tools/kovasharing.1.gz
  DEPENDS ${KOVA_CLI_MANPAGE}
  COMMENT "Compressing the manual page of kovasharing")
add_custom_target(kovasharing_cli_manpage ALL DEPENDS ${CMAKE_BINARY_DIR}/tools/kovasharing.1.gz)
# Made again at install time as well, so that an install from a build of only some targets
# does not stop at a missing page.
install(CODE "execute_process(COMMAND sh -c \"mkdir -p '${CMAKE_BINARY_DIR}/tools' && gzip -9 -n -c '${KOVA_CLI_MANPAGE}' > '${CMAKE_BINARY_DIR}/tools/kovasharing.1.gz'\")"
  COMPONENT tools)
install(FILES ${CMAKE_BINARY_DIR}/tools/kovasharing.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
