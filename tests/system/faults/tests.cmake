# What breaks under the agent, and what is left when it has: one file a kind of fault.
file(GLOB faults_tests CONFIGURE_DEPENDS ${TEST_DIR}/*Test.cpp)
foreach(source ${faults_tests})
  get_filename_component(concern ${source} NAME_WE)
  string(REGEX REPLACE "Test$" "" concern ${concern})
  string(TOLOWER system_faults_${concern}_test name)
  corvalent_add_test(${name} ${source} LIBS system_harness LABELS system TIMEOUT 300)
endforeach()
