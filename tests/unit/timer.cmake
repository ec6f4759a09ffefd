# The shutdown timer.
voltaria_unit_test(engine_timer_test SANDBOX SOURCES engine_timer_test.cpp engine_fixture.cpp LIBS engine agentlib)
