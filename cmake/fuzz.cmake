# Fuzz targets (scripts/fuzz): built with clang's libFuzzer and AddressSanitizer plus
# UndefinedBehaviorSanitizer in a build directory of their own, configured with
# -DKOVA_FUZZ=ON and clang as the compiler. The library's own sources are compiled with the
# same instrumentation there; normal builds ignore this file (their tests replay the inputs).
option(KOVA_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
set(KOVA_FUZZ_TARGETS escape condition field entry_row cgi remote_ip)
if(NOT KOVA_FUZZ)
  return()
endif()
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "KOVA_FUZZ needs clang (configure with CC=clang CXX=clang++)")
endif()
set(KOVA_FUZZ_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined
  -fno-omit-frame-pointer -g -O1)
foreach(lib ${KOVA_LAYERS_UPTO_login})
  target_compile_options(${lib} PRIVATE ${KOVA_FUZZ_FLAGS} -fsanitize=fuzzer-no-link)
endforeach()
foreach(name ${KOVA_FUZZ_TARGETS})
  add_executable(fuzz_${name} EXCLUDE_FROM_ALL fuzz/${name}_fuzz.cpp)
  target_compile_options(fuzz_${name} PRIVATE ${KOVA_WARNINGS} ${KOVA_FUZZ_FLAGS}
    -fsanitize=fuzzer)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(fuzz_${name} PRIVATE ${KOVA_LAYERS_UPTO_login})
endforeach()
