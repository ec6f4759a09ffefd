# The logs and the event settings, out of files with any content.
voltaria_fuzz_target(fuzz_log SANDBOX SOURCES fuzz_log.cpp LIBS engine agentlib)
voltaria_fuzz_target(fuzz_events SANDBOX SOURCES fuzz_events.cpp LIBS engine agentlib)
