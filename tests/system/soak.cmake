# Days, or weeks, of a random life of the real daemon in virtual time, and a checker that knows the rules.
voltaria_system_test(system_soak SOURCES soak_test.cpp soak.cpp soak_deeds.cpp soak_deeds_network.cpp soak_rules.cpp
                     soak_rules_record.cpp soak_rules_events.cpp soak_rules_told.cpp soak_deadlines.cpp soak_stage.cpp
                     bed.cpp)
target_compile_definitions(system_soak PRIVATE VOLTARIA_INITIAL_SETTINGS="${CMAKE_BINARY_DIR}/packaging/config")
