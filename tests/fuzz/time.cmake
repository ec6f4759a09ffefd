voltaria_fuzz_target(fuzz_time SOURCES fuzz_time.cpp LIBS engine)
