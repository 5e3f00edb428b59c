# Benchmark of the visitor functions against a plain SQLite floor (scripts/bench). Built only
# where Google Benchmark is installed; the floor links the same SQLite as the platform layer.
# The benchmarks write their databases under KOVA_ROOT: never in a production build.
if(NOT KOVA_ROOT_CLEAN)
  return()
endif()
find_package(benchmark QUIET)
if(NOT benchmark_FOUND)
  message(STATUS "Google Benchmark not found: no benchmark programs")
  return()
endif()

# The floor reaches SQLite the way the sharing library does: through the platform library,
# which carries the pinned SQLite and exports its interface (plus the system library when
# the build uses that one). A second copy of SQLite in one process would not see the other's
# file locks.
set(KOVA_BENCH_SQLITE kovaplatform ${KOVA_SQLITE_FOR_CLIENTS})
get_target_property(KOVA_BENCH_SQLITE_INCLUDES kova_sqlite3 INTERFACE_INCLUDE_DIRECTORIES)

add_library(kova_bench_floor STATIC bench/floor.cpp)
target_include_directories(kova_bench_floor PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/bench
  ${CMAKE_CURRENT_BINARY_DIR}/generated)
if(KOVA_BENCH_SQLITE_INCLUDES)
  target_include_directories(kova_bench_floor SYSTEM PUBLIC ${KOVA_BENCH_SQLITE_INCLUDES})
endif()
target_link_libraries(kova_bench_floor PUBLIC ${KOVA_BENCH_SQLITE})
target_compile_options(kova_bench_floor PRIVATE ${KOVA_WARNINGS})

# One request of a web program, linked as such a program is: against the shared library.
add_executable(kova_bench_cold_library bench/cold_library.cpp)
target_link_libraries(kova_bench_cold_library PRIVATE kovasharing)
target_compile_options(kova_bench_cold_library PRIVATE ${KOVA_WARNINGS})

add_executable(kova_bench_cold_floor bench/cold_floor.cpp)
target_link_libraries(kova_bench_cold_floor PRIVATE kova_bench_floor)
target_compile_options(kova_bench_cold_floor PRIVATE ${KOVA_WARNINGS})

add_executable(kova_bench bench/kova_bench.cpp bench/bench_common.cpp bench/seed.cpp
  bench/inproc.cpp bench/worker.cpp bench/floor_login.cpp)
# The platform library too, for its count of log restarts.
target_include_directories(kova_bench PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/platform/include)
target_link_libraries(kova_bench PRIVATE kovasharing kovaplatform kova_bench_floor
  benchmark::benchmark PkgConfig::GCRYPT)
target_compile_options(kova_bench PRIVATE ${KOVA_WARNINGS})
add_dependencies(kova_bench kova_bench_cold_library kova_bench_cold_floor kova_schema)
