# The status monitor and the stopwatch of a mains failure. The monitor writes the fixed files and runs the programs that
# tell users, so each of its tests runs in a sandbox.
voltaria_unit_test(engine_monitor_test SANDBOX SOURCES engine_monitor_test.cpp engine_monitor_bits_test.cpp
                   engine_monitor_link_test.cpp engine_monitor_shown_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_stopwatch_test SOURCES engine_stopwatch_test.cpp LIBS engine agentlib)
