voltaria_fuzz_target(fuzz_text SOURCES fuzz_text.cpp LIBS agentlib)
