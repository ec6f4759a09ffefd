# The client side of the protocol and the command-line monitor.
find_package(nlohmann_json REQUIRED)
voltaria_unit_test(monitor_codec_test SOURCES monitor_codec_test.cpp LIBS monitorlib)
voltaria_unit_test(monitor_page_test SOURCES monitor_page_test.cpp monitor_text_test.cpp
                   monitor_fake_agent.cpp LIBS monitorlib)
voltaria_unit_test(monitor_records_test SOURCES monitor_records_test.cpp monitor_charset_test.cpp
                   monitor_discover_test.cpp monitor_fake_agent.cpp LIBS monitorlib agentlib)
voltaria_unit_test(monitor_session_test SOURCES monitor_session_test.cpp monitor_fake_agent.cpp LIBS monitorlib)
voltaria_unit_test(monitor_program_test SOURCES monitor_program_test.cpp monitor_read_test.cpp monitor_watch_test.cpp
                   monitor_fake_agent.cpp monitor_terminal.cpp LIBS monitorlib nlohmann_json::nlohmann_json)
add_dependencies(monitor_program_test voltaria)
target_compile_definitions(monitor_program_test PRIVATE VOLTARIA_PROGRAM="$<TARGET_FILE:voltaria>")
