# The visitor gate: a CGI program and FastCGI server over the public library API and the
# platform's web-request calls (FastCGI through Debian's libfcgi-dev), and its stylesheet. A
# small helper makes demonstration links for scripts/demo and the browser test; it is not
# installed.
find_path(FCGI_INCLUDE_DIR fcgiapp.h REQUIRED)
find_library(FCGI_LIBRARY fcgi REQUIRED)
add_executable(kovasharing-gate tools/gate/gate.cpp tools/gate/gate_fastcgi.cpp
  tools/gate/gate_html.cpp tools/gate/gate_i18n.cpp)
target_compile_options(kovasharing-gate PRIVATE ${KOVA_WARNINGS})
target_compile_definitions(kovasharing-gate PRIVATE
  KOVA_GATE_LOCALEDIR="${CMAKE_INSTALL_FULL_LOCALEDIR}")
target_include_directories(kovasharing-gate SYSTEM PRIVATE ${FCGI_INCLUDE_DIR})
target_link_libraries(kovasharing-gate PRIVATE kovasharing kovaplatform ${FCGI_LIBRARY})

# The pages' translations: one catalogue per language in tools/gate/po/, compiled into
# locale/ beside the gate (where a gate run from the build tree finds them) and installed
# into the system's locale directory.
find_program(KOVA_MSGFMT msgfmt REQUIRED)
set(KOVA_GATE_LANGUAGES de)
set(KOVA_GATE_CATALOGUES "")
foreach(language ${KOVA_GATE_LANGUAGES})
  set(mo ${CMAKE_BINARY_DIR}/locale/${language}/LC_MESSAGES/kovasharing-gate.mo)
  add_custom_command(OUTPUT ${mo}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/locale/${language}/LC_MESSAGES
    COMMAND ${KOVA_MSGFMT} --check-format -o ${mo} ${CMAKE_CURRENT_SOURCE_DIR}/tools/gate/po/${language}.po
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tools/gate/po/${language}.po
    COMMENT "Compiling the gate's ${language} texts")
  list(APPEND KOVA_GATE_CATALOGUES ${mo})
  install(FILES ${mo} DESTINATION ${CMAKE_INSTALL_LOCALEDIR}/${language}/LC_MESSAGES
    COMPONENT tools)
endforeach()
add_custom_target(kovasharing-gate-catalogues ALL DEPENDS ${KOVA_GATE_CATALOGUES})
add_dependencies(kovasharing-gate kovasharing-gate-catalogues)

add_executable(kovasharing-demo-links tools/gate/demo_links.cpp)
target_compile_options(kovasharing-demo-links PRIVATE ${KOVA_WARNINGS})
target_link_libraries(kovasharing-demo-links PRIVATE kovasharing)

set(KOVA_GATE_CGI_DIR ${CMAKE_INSTALL_LIBDIR}/kovasharing/cgi-bin)
set(KOVA_GATE_STATIC_DIR ${CMAKE_INSTALL_DATADIR}/kovasharing/gate)
kova_install_rpath(kovasharing-gate ${KOVA_GATE_CGI_DIR})
install(TARGETS kovasharing-gate RUNTIME DESTINATION ${KOVA_GATE_CGI_DIR} COMPONENT tools)
install(FILES tools/gate/static/kovasharing-gate.css DESTINATION ${KOVA_GATE_STATIC_DIR}
  COMPONENT tools)
# The FastCGI server under systemd (the tools package installs the unit, disabled).
set(KOVA_GATE_FULL_PATH ${CMAKE_INSTALL_PREFIX}/${KOVA_GATE_CGI_DIR}/kovasharing-gate)
configure_file(packaging/systemd/kovasharing-gate.service.in
  ${CMAKE_CURRENT_BINARY_DIR}/packaging/kovasharing-gate.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/kovasharing-gate.service
  DESTINATION lib/systemd/system COMPONENT tools)
