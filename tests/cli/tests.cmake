# The administrator tool as a child process; visitors log in through PAM (pam_wrapper).
if(TARGET kovasharing_cli)
  add_executable(test_cli ${CMAKE_CURRENT_SOURCE_DIR}/cli/cli_test.cpp)
  target_compile_options(test_cli PRIVATE ${KOVA_WARNINGS})
  target_link_libraries(test_cli PRIVATE kovatest_support kovasharing)
  target_compile_definitions(test_cli PRIVATE
    KOVA_CLI_PROGRAM="$<TARGET_FILE:kovasharing_cli>"
    KOVA_CLI_MANPAGE="${CMAKE_SOURCE_DIR}/doc/kovasharing.1")
  add_dependencies(test_cli kovasharing_cli kova_schema)
  add_test(NAME cli COMMAND test_cli)
  set_tests_properties(cli PROPERTIES ENVIRONMENT "${KOVA_PAM_TEST_ENV}"
    RESOURCE_LOCK kova_root TIMEOUT 600)
endif()
