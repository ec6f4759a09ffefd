# The settings file as the local management tool reads it.
voltaria_fuzz_target(fuzz_control SOURCES fuzz_control.cpp LIBS controllib)
