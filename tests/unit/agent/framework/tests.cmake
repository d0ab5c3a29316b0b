foreach(test TaskCondition EventWaiter Policy Module Counters Scope ProcsMessage FileNotifyMessage EngineStress)
  string(TOLOWER ${test} test_name)
  corvalent_add_test(framework_${test_name}_test ${TEST_DIR}/${test}Test.cpp LIBS framework)
endforeach()
corvalent_add_test(framework_task_test ${TEST_DIR}/TaskTest.cpp ${CMAKE_SOURCE_DIR}/tests/support/AllocationCounter.cpp
  LIBS framework)

# Libraries that are, or are not quite, modules.
function(corvalent_add_test_library name source)
  add_library(${name} MODULE ${source})
  target_link_libraries(${name} PRIVATE framework)
  set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
endfunction()

corvalent_add_test(framework_engine_test ${TEST_DIR}/EngineTest.cpp LIBS framework)
foreach(library Good BrokenInspector NoFactory NullFactory ThrowingFactory)
  set(target framework_test_${library})
  corvalent_add_test_library(${target} ${TEST_DIR}/libraries/${library}.cpp)
  add_dependencies(framework_engine_test ${target})
  string(REGEX REPLACE "([a-z])([A-Z])" "\\1_\\2" macro ${library})
  string(TOUPPER ${macro} macro)
  target_compile_definitions(framework_engine_test PRIVATE LIBRARY_${macro}="$<TARGET_FILE:${target}>")
endforeach()
