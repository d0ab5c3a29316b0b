corvalent_add_test(filenotify_group_test
  ${TEST_DIR}/FanotifyGroupTest.cpp ${TEST_DIR}/MarksTest.cpp
  LIBS filenotify_objects TIMEOUT 180)
