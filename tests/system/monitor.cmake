# The command-line monitor against the real daemon, and a crowd of monitors.
find_package(nlohmann_json REQUIRED)
voltaria_system_test(system_monitor SOURCES monitor_test.cpp bed.cpp ../unit/monitor_terminal.cpp
                     LIBS nlohmann_json::nlohmann_json)
target_compile_definitions(system_monitor PRIVATE VOLTARIA_PROGRAM="$<TARGET_FILE:voltaria>")
voltaria_system_test(system_crowd SOURCES crowd_test.cpp bed.cpp)
voltaria_system_test(system_voltaria_read SOURCES voltaria_read_test.cpp bed.cpp ../unit/monitor_terminal.cpp
                     LIBS $<LINK_ONLY:monitorlib> nlohmann_json::nlohmann_json)
target_compile_definitions(system_voltaria_read PRIVATE VOLTARIA_PROGRAM="$<TARGET_FILE:voltaria>")
