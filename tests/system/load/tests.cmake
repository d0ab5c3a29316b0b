# Alone, one after the other, because they take both cores for a while.
file(GLOB load_tests CONFIGURE_DEPENDS ${TEST_DIR}/*Test.cpp)
foreach(source ${load_tests})
  get_filename_component(concern ${source} NAME_WE)
  string(REGEX REPLACE "Test$" "" concern ${concern})
  string(TOLOWER system_load_${concern}_test name)
  corvalent_add_test(${name} ${source} LIBS system_harness LABELS system-slow
    TIMEOUT 300 PROPERTIES RUN_SERIAL ON)
endforeach()
