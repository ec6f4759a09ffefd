# The real daemon: its start and end, its network service, the link to the unit.
voltaria_system_test(system_start SOURCES start_test.cpp bed.cpp)
voltaria_system_test(system_network SOURCES network_test.cpp bed.cpp)
voltaria_system_test(system_link SOURCES link_test.cpp bed.cpp)
