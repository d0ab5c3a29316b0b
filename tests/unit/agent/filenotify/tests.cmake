corvalent_add_test(filenotify_group_test
  ${TEST_DIR}/FanotifyGroupTest.cpp ${TEST_DIR}/FanotifyEventsTest.cpp ${TEST_DIR}/MarksTest.cpp
  LIBS filenotify_objects TIMEOUT 180)
corvalent_add_test(filenotify_task_test
  ${TEST_DIR}/WatchTest.cpp ${TEST_DIR}/WatchRequestTest.cpp ${TEST_DIR}/FileNotifyModuleTest.cpp
  LIBS filenotify_objects TIMEOUT 120)
