# The schedules: texts, loading, choice, saving. They write the fixed files.
voltaria_unit_test(engine_schedule_test SANDBOX SOURCES engine_schedule_test.cpp engine_schedule_save_test.cpp engine_fixture.cpp LIBS engine agentlib)
