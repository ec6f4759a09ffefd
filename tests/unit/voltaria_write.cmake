# Settings, events, users and schedules in words, as the command-line monitor reads and changes them.
voltaria_unit_test(monitor_settings_test SOURCES monitor_settings_test.cpp monitor_schedule_text_test.cpp
                   LIBS monitorlib)
voltaria_unit_test(voltaria_write_test SOURCES voltaria_write_test.cpp monitor_fake_agent.cpp monitor_terminal.cpp
                   LIBS monitorlib)
add_dependencies(voltaria_write_test voltaria)
target_compile_definitions(voltaria_write_test PRIVATE VOLTARIA_PROGRAM="$<TARGET_FILE:voltaria>")
