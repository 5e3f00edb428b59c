# The visitor gate: a CGI program over the public library API and the platform's web-request
# calls, and its stylesheet. A small helper makes demonstration links for scripts/demo and the
# browser test; it is not installed.
add_executable(kovasharing-gate tools/gate/gate.cpp tools/gate/gate_html.cpp)
target_compile_options(kovasharing-gate PRIVATE ${KOVA_WARNINGS})
target_link_libraries(kovasharing-gate PRIVATE kovasharing kovaplatform)

add_executable(kovasharing-demo-links tools/gate/demo_links.cpp)
target_compile_options(kovasharing-demo-links PRIVATE ${KOVA_WARNINGS})
target_link_libraries(kovasharing-demo-links PRIVATE kovasharing)

set(KOVA_GATE_CGI_DIR ${CMAKE_INSTALL_LIBDIR}/kovasharing/cgi-bin)
set(KOVA_GATE_STATIC_DIR ${CMAKE_INSTALL_DATADIR}/kovasharing/gate)
kova_install_rpath(kovasharing-gate ${KOVA_GATE_CGI_DIR})
install(TARGETS kovasharing-gate RUNTIME DESTINATION ${KOVA_GATE_CGI_DIR} COMPONENT tools)
install(FILES tools/gate/static/kovasharing-gate.css DESTINATION ${KOVA_GATE_STATIC_DIR}
  COMPONENT tools)
