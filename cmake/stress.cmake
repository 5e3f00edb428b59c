# Crash and load driver (scripts/stress): worker processes over the library's objects, killed
# at random while they work. Built only on request (target kova_stress).
if(NOT KOVA_LAYERS_UPTO_login)
  return()
endif()
add_executable(kova_stress EXCLUDE_FROM_ALL stress/stress.cpp stress/worker.cpp stress/verify.cpp)
target_compile_options(kova_stress PRIVATE ${KOVA_WARNINGS})
target_link_libraries(kova_stress PRIVATE ${KOVA_LAYERS_UPTO_login})
add_dependencies(kova_stress kova_schema)
