# Settings, schedules and logs over the network, through the real daemon.
voltaria_system_test(system_settings SOURCES settings_test.cpp bed.cpp)
