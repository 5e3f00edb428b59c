# The visitor gate: run as the web server runs a CGI program, one child process per request
# (gate), and as a FastCGI server (supervisor, login helper, workers) started for real as root
# and driven over its socket (fastcgi).
function(kova_gate_test name source)
  add_executable(test_${name} ${CMAKE_CURRENT_LIST_DIR}/${source})
  target_compile_options(test_${name} PRIVATE ${KOVA_WARNINGS})
  target_link_libraries(test_${name} PRIVATE kovatest_support ${ARGN})
  target_compile_definitions(test_${name} PRIVATE
    KOVA_GATE_BINARY="$<TARGET_FILE:kovasharing-gate>")
  add_dependencies(test_${name} kovasharing-gate kova_schema)
  add_test(NAME ${name} COMMAND test_${name})
  set_tests_properties(${name} PROPERTIES ENVIRONMENT "${KOVA_PAM_TEST_ENV}"
    RESOURCE_LOCK kova_root TIMEOUT 300)
endfunction()

if(TARGET kovasharing-gate)
  kova_gate_test(gate gate_cgi_test.cpp kovasharing kovaplatform)
  kova_gate_test(fastcgi fastcgi_test.cpp kovasharing kovaplatform)
endif()
