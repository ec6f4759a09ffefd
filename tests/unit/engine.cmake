# The event engine's entry, working configuration, status fill, event log and time texts. Each test writes the fixed
# files, so each runs in a sandbox.
voltaria_unit_test(engine_time_test SANDBOX SOURCES engine_time_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_config_test SANDBOX SOURCES engine_config_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_save_test SANDBOX SOURCES engine_save_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_log_test SANDBOX SOURCES engine_log_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_status_test SANDBOX SOURCES engine_status_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_entry_test SANDBOX SOURCES engine_entry_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_refusal_test SANDBOX SOURCES engine_refusal_test.cpp engine_fixture.cpp LIBS engine agentlib
                   testbed)
