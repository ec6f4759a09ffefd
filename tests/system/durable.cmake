# Settings of monitors outlive the agent's sudden death.
voltaria_system_test(system_durable SOURCES durable_test.cpp bed.cpp)
