# What breaks under the agent, and what is left when it has: one file a kind of fault.
file(GLOB faults_tests CONFIGURE_DEPENDS ${TEST_DIR}/*Test.cpp)
foreach(source ${faults_tests})
  get_filename_component(concern ${source} NAME_WE)
  string(REGEX REPLACE "Test$" "" concern ${concern})
  string(TOLOWER system_faults_${concern}_test name)
  corvalent_add_test(${name} ${source} LIBS system_harness LABELS system TIMEOUT 300)
endforeach()

# What fails on purpose.
add_library(faulty_test_module MODULE ${TEST_DIR}/FaultyModule.cpp)
target_link_libraries(faulty_test_module PRIVATE framework)
set_target_properties(faulty_test_module PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
target_compile_definitions(system_faults_module_test PRIVATE FAULTY_MODULE="$<TARGET_FILE:faulty_test_module>")
add_dependencies(system_faults_module_test faulty_test_module)

# A clock for whoever preloads it.
add_library(shifted_clock MODULE EXCLUDE_FROM_ALL ${TEST_DIR}/ShiftedClock.cpp)
target_link_libraries(shifted_clock PRIVATE corvalent_options ${CMAKE_DL_LIBS})
set_target_properties(shifted_clock PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
target_compile_definitions(system_faults_clock_test PRIVATE SHIFTED_CLOCK="$<TARGET_FILE:shifted_clock>")
add_dependencies(system_faults_clock_test shifted_clock)
