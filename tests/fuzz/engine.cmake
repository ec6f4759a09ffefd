# The texts for users, and the list of the logged-in ones, which lies in a fixed file.
voltaria_fuzz_target(fuzz_notice SOURCES fuzz_notice.cpp LIBS engine agentlib)
voltaria_fuzz_target(fuzz_who SANDBOX SOURCES fuzz_who.cpp LIBS engine agentlib)
