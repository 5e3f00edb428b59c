# Faults under the library: failing system calls inside SQLite, a write lock held by another
# process, a CGI process started without standard descriptors. Children of the test program are
# the program itself, started again with KOVA_FAULT_CHILD set.
add_executable(test_faults ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp)
target_include_directories(test_faults PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../login)
target_compile_options(test_faults PRIVATE ${KOVA_WARNINGS})
target_link_libraries(test_faults PRIVATE kovatest_support ${KOVA_LAYERS_UPTO_login})
add_dependencies(test_faults kova_schema)
add_test(NAME faults COMMAND test_faults)
set_tests_properties(faults PROPERTIES ENVIRONMENT "${KOVA_TEST_ENV}"
  RESOURCE_LOCK kova_root TIMEOUT 600)
