# The agent process's own modules. Those that open fixed files or ports, or write the debug file, run in a sandbox.
voltaria_unit_test(agent_packets SOURCES agent_wire_test.cpp agent_framing_test.cpp agent_clients_test.cpp
                   LIBS agentlib engine)
voltaria_unit_test(agent_network SANDBOX SOURCES agent_send_test.cpp agent_announce_test.cpp agent_endpoints_test.cpp
                   LIBS agentlib engine SANDBOX_OPTIONS --interfaces 2)
voltaria_unit_test(agent_interfaces SANDBOX SOURCES agent_interfaces_test.cpp
                   LIBS agentlib engine SANDBOX_OPTIONS --interfaces 45)
voltaria_unit_test(agent_lock SANDBOX SOURCES agent_lock_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_memory SANDBOX SOURCES agent_memory_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_channel SANDBOX SOURCES agent_channel_test.cpp agent_callback_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_requests SANDBOX SOURCES agent_requests_test.cpp agent_loop_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_orders_test SOURCES agent_orders_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_settings SANDBOX SOURCES agent_queries_test.cpp agent_settings_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_logins SANDBOX SOURCES agent_password_test.cpp agent_inquiry_test.cpp LIBS agentlib engine
                   SANDBOX_OPTIONS --interfaces 2)
voltaria_unit_test(agent_start SANDBOX SOURCES agent_start_test.cpp LIBS agentlib engine)
voltaria_unit_test(agent_refusals SANDBOX SOURCES agent_refusal_test.cpp LIBS agentlib engine)
target_link_options(agent_refusals PRIVATE LINKER:--wrap=realloc)
