# The agent's packets. In a sandbox, because the engine behind them opens the fixed files.
voltaria_fuzz_target(fuzz_packet_tcp SANDBOX SOURCES fuzz_packet_tcp.cpp LIBS agentlib engine)
voltaria_fuzz_target(fuzz_packet_udp SANDBOX SOURCES fuzz_packet_udp.cpp LIBS agentlib engine)
# Whole sessions, with accounts to log in with and every way to start a program replaced.
voltaria_fuzz_target(fuzz_session SANDBOX SOURCES fuzz_session.cpp LIBS agentlib engine)
