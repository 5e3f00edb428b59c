# The platform library carries the pinned SQLite itself.
add_executable(test_bench_fixes ${CMAKE_CURRENT_LIST_DIR}/fixes_test.cpp)
target_compile_options(test_bench_fixes PRIVATE ${KOVA_WARNINGS})
target_compile_definitions(test_bench_fixes PRIVATE
  KOVA_TEST_PLATFORM_LIBRARY="$<TARGET_FILE:kovaplatform>"
  KOVA_TEST_SQLITE_VERSION="${KOVA_SQLITE_EXPECTED_VERSION}")
target_link_libraries(test_bench_fixes PRIVATE kovatest_support ${KOVA_LAYERS_UPTO_login} dl)
add_dependencies(test_bench_fixes kovaplatform)
add_test(NAME bench_fixes COMMAND test_bench_fixes)
set_tests_properties(bench_fixes PROPERTIES ENVIRONMENT "${KOVA_TEST_ENV}" TIMEOUT 120)
