# The platform library carries the pinned SQLite itself.
kova_test(bench_fixes ${CMAKE_CURRENT_LIST_DIR}/fixes_test.cpp LIBS ${KOVA_LAYERS_UPTO_login} dl
  DEPENDS kovaplatform DEFS KOVA_TEST_PLATFORM_LIBRARY="$<TARGET_FILE:kovaplatform>"
  KOVA_TEST_SQLITE_VERSION="${KOVA_SQLITE_EXPECTED_VERSION}")
