# Each peer is a source of its own, left out where the peer is not installed.
set(QUEUE_SOURCES main.cpp Product.cpp Mutex.cpp Boost.cpp)
set(QUEUE_LIBS Boost::headers)

find_path(CONCURRENTQUEUE_INCLUDE_DIR concurrentqueue/concurrentqueue.h)
if(CONCURRENTQUEUE_INCLUDE_DIR)
  list(APPEND QUEUE_SOURCES Moodycamel.cpp)
else()
  message(STATUS "bench queue: without moodycamel's queue (libconcurrentqueue-dev is not installed)")
endif()

find_package(TBB QUIET)
if(TBB_FOUND)
  list(APPEND QUEUE_SOURCES Tbb.cpp)
  list(APPEND QUEUE_LIBS TBB::tbb)
else()
  message(STATUS "bench queue: without tbb's queue (libtbb-dev is not installed)")
endif()

pkg_check_modules(DPDK QUIET libdpdk)
find_library(RTE_RING_LIBRARY rte_ring)
if(DPDK_FOUND AND RTE_RING_LIBRARY)
  list(APPEND QUEUE_SOURCES Dpdk.cpp)
  list(APPEND QUEUE_LIBS ${RTE_RING_LIBRARY})
  # For this source alone: the others are measured as they are shipped.
  set_source_files_properties(${BENCH_DIR}/Dpdk.cpp PROPERTIES COMPILE_OPTIONS
    "-include;rte_config.h;-march=corei7;-Wno-pedantic")
else()
  message(STATUS "bench queue: without DPDK's ring (libdpdk-dev is not installed)")
endif()

list(TRANSFORM QUEUE_SOURCES PREPEND ${BENCH_DIR}/)
corvalent_add_bench(queue ${QUEUE_SOURCES} ${CMAKE_SOURCE_DIR}/tests/support/AllocationCounter.cpp LIBS ${QUEUE_LIBS})
target_include_directories(bench_queue PRIVATE ${CMAKE_SOURCE_DIR}/tests)
if(DPDK_FOUND)
  target_include_directories(bench_queue SYSTEM PRIVATE ${DPDK_INCLUDE_DIRS})
endif()
