# Schedules, self-tests by schedule and the logs of the real daemon, in virtual time.
voltaria_system_test(system_schedule SOURCES schedule_test.cpp schedule_stage.cpp vt_stage.cpp bed.cpp)
voltaria_system_test(system_selftest SOURCES selftest_test.cpp schedule_stage.cpp vt_stage.cpp bed.cpp)
voltaria_system_test(system_datalog SOURCES datalog_test.cpp schedule_stage.cpp vt_stage.cpp bed.cpp)
