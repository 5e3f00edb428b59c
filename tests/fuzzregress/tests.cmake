# The fuzz targets replayed over their seed corpora and every input that once failed
# (fuzz/regressions/<target>/), built with the normal compiler, so each test build (and the
# sanitizer build) checks them again. Their own main comes before the test support's.
set(KOVA_FUZZ_DIR ${CMAKE_SOURCE_DIR}/fuzz)
foreach(name escape condition field entry_row cgi remote_ip)
  kova_test(fuzzregress_${name} ${KOVA_FUZZ_DIR}/${name}_fuzz.cpp ${KOVA_FUZZ_DIR}/replay_main.cpp
    LIBS ${KOVA_LAYERS_UPTO_login}
    ARGS ${KOVA_FUZZ_DIR}/corpus/${name} ${KOVA_FUZZ_DIR}/regressions/${name})
endforeach()
