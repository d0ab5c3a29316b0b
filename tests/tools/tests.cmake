# Programs that the demonstration and the system tests use; no tests themselves.
foreach(tool start_in_scope serve_directory fork_sleepers open_files storm first_thread_ends)
  add_executable(${tool} ${TEST_DIR}/${tool}.cpp)
  target_include_directories(${tool} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${tool} PRIVATE corvalent_options Threads::Threads PkgConfig::HTTPLIB)
  set_target_properties(${tool} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
endforeach()
