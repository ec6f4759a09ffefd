# The event settings and the logs. Each test writes the fixed files, so each runs in a sandbox.
voltaria_unit_test(engine_event_test SANDBOX SOURCES engine_event_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_page_test SANDBOX SOURCES engine_page_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_datalog_test SANDBOX SOURCES engine_datalog_test.cpp engine_fixture.cpp LIBS engine agentlib)
