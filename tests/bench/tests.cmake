# What the benchmark's fixes and the build keep true: the platform connection keeps an emptied
# write-ahead log between processes, the failed-login store keeps its connection per process (and
# a child its own), the shared library loads neither libcrypto nor libgcrypt until a digest is
# asked for, and the platform library carries the pinned SQLite itself.
add_executable(test_bench_fixes ${CMAKE_CURRENT_LIST_DIR}/fixes_test.cpp)
target_compile_options(test_bench_fixes PRIVATE ${KOVA_WARNINGS})
target_compile_definitions(test_bench_fixes PRIVATE
  KOVA_TEST_SHARING_LIBRARY="$<TARGET_FILE:kovasharing>"
  KOVA_TEST_PLATFORM_LIBRARY="$<TARGET_FILE:kovaplatform>"
  KOVA_TEST_SQLITE_VERSION="${KOVA_SQLITE_EXPECTED_VERSION}")
target_link_libraries(test_bench_fixes PRIVATE kovatest_support ${KOVA_LAYERS_UPTO_login} dl)
add_dependencies(test_bench_fixes kova_schema kovasharing kovaplatform)
add_test(NAME bench_fixes COMMAND test_bench_fixes)
set_tests_properties(bench_fixes PROPERTIES ENVIRONMENT "${KOVA_TEST_ENV}"
  RESOURCE_LOCK kova_root TIMEOUT 120)
