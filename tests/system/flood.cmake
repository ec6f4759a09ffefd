# The agent in real time under floods of everything.
voltaria_system_test(system_flood SOURCES flood_test.cpp faults_load.cpp bed.cpp)
