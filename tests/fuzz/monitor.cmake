voltaria_fuzz_target(fuzz_monitor SOURCES fuzz_monitor.cpp LIBS monitorlib)
