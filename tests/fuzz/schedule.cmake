voltaria_fuzz_target(fuzz_schedule SANDBOX SOURCES fuzz_schedule.cpp LIBS engine agentlib)
