# Programs that do next to nothing, so that what is measured is their start.
foreach(program exits stays)
  add_executable(bench_exec_${program} ${BENCH_DIR}/${program}.cpp)
  target_compile_options(bench_exec_${program} PRIVATE -O2 -ffreestanding -fno-exceptions
    -fno-stack-protector -fno-pie)
  target_include_directories(bench_exec_${program} PRIVATE ${CMAKE_SOURCE_DIR}/bench)
  target_link_options(bench_exec_${program} PRIVATE -nostdlib -static -no-pie)
  set_target_properties(bench_exec_${program} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench/programs OUTPUT_NAME ${program})
endforeach()

find_package(GTest REQUIRED)
# The harness of the system tests, here again because tests may not be part of this build.
set(EXEC_HARNESS ${CMAKE_SOURCE_DIR}/tests/system/Agent.cpp ${CMAKE_SOURCE_DIR}/tests/system/Program.cpp)
set(EXEC_SOURCES main.cpp BareLoop.cpp Burst.cpp Digest.cpp Fapolicyd.cpp Kill.cpp SeenBefore.cpp Starter.cpp
  Storm.cpp Subject.cpp Trusted.cpp)
list(TRANSFORM EXEC_SOURCES PREPEND ${BENCH_DIR}/)
corvalent_add_bench(exec ${EXEC_SOURCES} ${EXEC_HARNESS}
  LIBS sdk OpenSSL::Crypto PkgConfig::HTTPLIB GTest::gtest
  NEEDS corvalentd corvalentctl whitelist_module process_collect_module filenotify_module isolate_module
    data_comm_module bench_exec_exits bench_exec_stays)
target_include_directories(bench_exec PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_compile_definitions(bench_exec PRIVATE BUILT_ROOT="${CMAKE_BINARY_DIR}/root"
  BENCH_PROGRAMS="${CMAKE_BINARY_DIR}/bench/programs")
