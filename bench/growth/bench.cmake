set(GROWTH_SOURCES main.cpp TrustList.cpp Agent.cpp LoadAndStore.cpp Waiting.cpp LookUp.cpp Start.cpp FileEvents.cpp)
list(TRANSFORM GROWTH_SOURCES PREPEND ${BENCH_DIR}/)
# Of the sibling modules the parts alone that are measured: each module exports the same factory.
list(APPEND GROWTH_SOURCES ${CMAKE_SOURCE_DIR}/agent/process_collect/ProcsScanTask.cpp
  ${CMAKE_SOURCE_DIR}/agent/process_collect/ProcessList.cpp)
foreach(part FanotifyEvents FanotifyGroup Marks Watcher FileNotifyTask)
  list(APPEND GROWTH_SOURCES ${CMAKE_SOURCE_DIR}/agent/filenotify/${part}.cpp)
endforeach()
corvalent_add_bench(growth ${GROWTH_SOURCES} LIBS whitelist_objects OpenSSL::Crypto)
target_include_directories(bench_growth PRIVATE ${CMAKE_SOURCE_DIR}/tests)
