foreach(concern MachineChecks StateChecks DaemonChecks HealthChecks)
  list(APPEND DOCTOR_TESTS ${TEST_DIR}/${concern}Test.cpp)
endforeach()
corvalent_add_test(ctl_doctor_test ${DOCTOR_TESTS} LIBS ctl_objects)
