# The visitor gate run as the web server runs it, one child process per request.
if(TARGET kovasharing-gate)
  add_executable(test_gate ${CMAKE_CURRENT_LIST_DIR}/gate_cgi_test.cpp)
  target_compile_options(test_gate PRIVATE ${KOVA_WARNINGS})
  target_link_libraries(test_gate PRIVATE kovatest_support kovasharing kovaplatform)
  target_compile_definitions(test_gate PRIVATE
    KOVA_GATE_BINARY="$<TARGET_FILE:kovasharing-gate>")
  add_dependencies(test_gate kovasharing-gate kova_schema)
  add_test(NAME gate COMMAND test_gate)
  set_tests_properties(gate PROPERTIES ENVIRONMENT "${KOVA_PAM_TEST_ENV}"
    RESOURCE_LOCK kova_root TIMEOUT 300)
endif()

# The gate as a FastCGI server (supervisor, login helper, workers) started for real as root and
# driven over its socket; links the layers, for the identity guard inside.
if(TARGET kovasharing-gate)
  add_executable(test_fastcgi ${CMAKE_CURRENT_LIST_DIR}/fastcgi_test.cpp)
  target_compile_options(test_fastcgi PRIVATE ${KOVA_WARNINGS})
  target_link_libraries(test_fastcgi PRIVATE kovatest_support ${KOVA_LAYERS_UPTO_login})
  target_compile_definitions(test_fastcgi PRIVATE
    KOVA_GATE_BINARY="$<TARGET_FILE:kovasharing-gate>")
  add_dependencies(test_fastcgi kovasharing-gate kova_schema)
  add_test(NAME fastcgi COMMAND test_fastcgi)
  set_tests_properties(fastcgi PROPERTIES ENVIRONMENT "${KOVA_PAM_TEST_ENV}"
    RESOURCE_LOCK kova_root TIMEOUT 300)
endif()
