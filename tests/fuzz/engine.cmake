# The texts for users, and the list of the logged-in ones. Neither touches a file.
voltaria_fuzz_target(fuzz_notice SOURCES fuzz_notice.cpp LIBS engine agentlib)
voltaria_fuzz_target(fuzz_who SOURCES fuzz_who.cpp LIBS engine agentlib)
