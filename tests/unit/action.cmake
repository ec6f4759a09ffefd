# What is done about an event, the notification programs, the final shutdown. The stand-ins of the sandbox record every
# program that is run.
voltaria_unit_test(engine_action_test SANDBOX SOURCES engine_action_test.cpp engine_fixture.cpp LIBS engine agentlib
                   testbed)
voltaria_unit_test(engine_notify_test SANDBOX SOURCES engine_notify_test.cpp engine_fixture.cpp LIBS engine agentlib
                   testbed)
voltaria_unit_test(engine_down_test SANDBOX SOURCES engine_down_test.cpp engine_fixture.cpp LIBS engine agentlib testbed)
