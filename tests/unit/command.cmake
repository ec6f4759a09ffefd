# The orders of monitors and of other agents: the engine's side and the handlers' side.
voltaria_unit_test(engine_command_test SANDBOX
                   SOURCES engine_command_test.cpp engine_agentevent_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(agent_orders_test SOURCES agent_orders_test.cpp LIBS agentlib engine)
