# The fuzz targets replayed over their seed corpora and every input that once failed
# (fuzz/regressions/<target>/), built with the normal compiler, so each test build (and the
# sanitizer build) checks them again.
set(KOVA_FUZZ_DIR ${CMAKE_SOURCE_DIR}/fuzz)
foreach(name escape condition field entry_row cgi remote_ip)
  add_executable(fuzzreplay_${name} ${KOVA_FUZZ_DIR}/${name}_fuzz.cpp
    ${KOVA_FUZZ_DIR}/replay_main.cpp)
  target_compile_options(fuzzreplay_${name} PRIVATE ${KOVA_WARNINGS})
  target_link_libraries(fuzzreplay_${name} PRIVATE ${KOVA_LAYERS_UPTO_login})
  add_dependencies(fuzzreplay_${name} kova_schema)
  add_test(NAME fuzzregress_${name} COMMAND fuzzreplay_${name}
    ${KOVA_FUZZ_DIR}/corpus/${name} ${KOVA_FUZZ_DIR}/regressions/${name})
  set_tests_properties(fuzzregress_${name} PROPERTIES ENVIRONMENT "${KOVA_TEST_ENV}"
    RESOURCE_LOCK kova_root TIMEOUT 300)
endforeach()
