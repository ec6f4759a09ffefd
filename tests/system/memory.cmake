# What the agent holds after many requests.
voltaria_system_test(system_memory SOURCES memory_test.cpp bed.cpp)
