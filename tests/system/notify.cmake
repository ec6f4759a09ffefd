# What the real daemon does to tell its users: programs, commands, and what is left behind.
voltaria_system_test(system_notify SOURCES notify_test.cpp bed.cpp)
