# What somebody would try who wants to run a program unseen: one file a kind of attempt.
file(GLOB evasions_tests CONFIGURE_DEPENDS ${TEST_DIR}/*Test.cpp)
foreach(source ${evasions_tests})
  get_filename_component(concern ${source} NAME_WE)
  string(REGEX REPLACE "Test$" "" concern ${concern})
  string(TOLOWER system_evasions_${concern}_test name)
  corvalent_add_test(${name} ${source} LIBS system_harness LABELS system)
  target_compile_definitions(${name} PRIVATE CHECK_TEXTS="${CMAKE_SOURCE_DIR}/tests/tools/check_texts.py")
endforeach()
target_compile_definitions(system_evasions_image_test PRIVATE
  FIRST_THREAD_ENDS="${CMAKE_BINARY_DIR}/tests/first_thread_ends")
add_dependencies(system_evasions_image_test first_thread_ends)
