# The unit's replies, each reader by itself and whole status passes.
voltaria_fuzz_target(fuzz_ups_reply SOURCES fuzz_ups_reply.cpp LIBS agentlib)
voltaria_fuzz_target(fuzz_ups_pass SANDBOX SOURCES fuzz_ups_pass.cpp LIBS agentlib)
