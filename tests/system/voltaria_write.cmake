# The commands of the command-line monitor that change something, against the real daemon.
find_package(nlohmann_json REQUIRED)
voltaria_system_test(system_voltaria_write SOURCES voltaria_write_test.cpp bed.cpp ../unit/monitor_terminal.cpp
                     LIBS nlohmann_json::nlohmann_json)
target_compile_definitions(system_voltaria_write PRIVATE VOLTARIA_PROGRAM="$<TARGET_FILE:voltaria>")
target_link_libraries(system_voltaria_write PRIVATE crypt)
