# The UPS process: replies as text, and the module against a scripted unit behind a pseudo-terminal.
voltaria_unit_test(ups_reply_test SOURCES ups_reply_test.cpp LIBS agentlib)
voltaria_unit_test(ups_line_test SANDBOX SOURCES ups_line_test.cpp ups_unit.cpp LIBS agentlib)
voltaria_unit_test(ups_model_test SANDBOX SOURCES ups_model_test.cpp ups_unit.cpp LIBS agentlib)
voltaria_unit_test(ups_status_test SANDBOX SOURCES ups_status_test.cpp ups_unit.cpp LIBS agentlib)
voltaria_unit_test(ups_query_test SANDBOX SOURCES ups_query_test.cpp ups_unit.cpp LIBS agentlib)
voltaria_unit_test(ups_selftest_test SANDBOX SOURCES ups_selftest_test.cpp ups_unit.cpp LIBS agentlib)
voltaria_unit_test(ups_loop_test SANDBOX SOURCES ups_loop_test.cpp ups_unit.cpp LIBS agentlib)
