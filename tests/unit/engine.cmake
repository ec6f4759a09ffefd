# The event engine. Most tests write its fixed files and see which programs it runs, so each runs in a sandbox, where
# the stand-ins record every program. Two tests look a text up in the catalogue of text.cmake.
include(${CMAKE_CURRENT_LIST_DIR}/text.cmake)

# Times: the texts, the time arithmetic of the schedules, the stopwatch of a mains failure.
voltaria_unit_test(engine_time_test SANDBOX SOURCES engine_time_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(auto_test SOURCES auto_test.cpp auto_property_test.cpp LIBS engine)
voltaria_unit_test(engine_stopwatch_test SOURCES engine_stopwatch_test.cpp LIBS engine agentlib)

# Settings: the working configuration, the event settings, the schedules.
voltaria_unit_test(engine_config_test SANDBOX SOURCES engine_config_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_save_test SANDBOX SOURCES engine_save_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_event_test SANDBOX SOURCES engine_event_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_schedule_test SANDBOX SOURCES engine_schedule_test.cpp engine_schedule_save_test.cpp
                   engine_fixture.cpp LIBS engine agentlib)

# The logs, and the pages of them that monitors ask for.
voltaria_unit_test(engine_log_test SANDBOX SOURCES engine_log_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_page_test SANDBOX SOURCES engine_page_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_datalog_test SANDBOX SOURCES engine_datalog_test.cpp engine_fixture.cpp LIBS engine agentlib)

# The status: filled at the start, then watched pass by pass.
voltaria_unit_test(engine_status_start_test SANDBOX SOURCES engine_status_start_test.cpp engine_fixture.cpp
                   LIBS engine agentlib)
voltaria_unit_test(engine_status_test SANDBOX SOURCES engine_status_test.cpp engine_status_bits_test.cpp
                   engine_status_link_test.cpp engine_status_shown_test.cpp engine_fixture.cpp LIBS engine agentlib)

# What comes of it: the entry, orders, the shutdown timer, and the competing deadlines played through the entry. There,
# the clock that does not jump stands between two turns, so that a busy machine shortens no grace.
voltaria_unit_test(engine_entry_test SANDBOX SOURCES engine_entry_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_command_test SANDBOX SOURCES engine_command_test.cpp engine_agentevent_test.cpp
                   engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_timer_test SANDBOX SOURCES engine_timer_test.cpp engine_timer_edge_test.cpp engine_fixture.cpp
                   LIBS engine agentlib testbed)
voltaria_unit_test(engine_matrix_test SANDBOX SOURCES engine_matrix_test.cpp engine_matrix.cpp engine_fixture.cpp
                   LIBS engine agentlib)
target_link_options(engine_matrix_test PRIVATE LINKER:--wrap=clock_gettime)

# What is done about an event: the texts for users, the programs that are run, the final shutdown.
voltaria_unit_test(engine_notice_test SANDBOX SOURCES engine_notice_test.cpp engine_fixture.cpp LIBS engine agentlib)
voltaria_unit_test(engine_action_test SANDBOX SOURCES engine_action_test.cpp engine_fixture.cpp
                   LIBS engine agentlib testbed)
foreach(test engine_notice_test engine_action_test)
  target_sources(${test} PRIVATE ${text_mo_euc})
  target_compile_definitions(${test} PRIVATE TEXT_CATALOGUE_EUC="${text_mo_euc}")
endforeach()
voltaria_unit_test(engine_notify_test SANDBOX SOURCES engine_notify_test.cpp engine_fixture.cpp
                   LIBS engine agentlib testbed)
voltaria_unit_test(engine_down_test SANDBOX SOURCES engine_down_test.cpp engine_fixture.cpp LIBS engine agentlib testbed)

# And where the system refuses a call.
voltaria_unit_test(engine_refusal_test SANDBOX SOURCES engine_refusal_test.cpp engine_fixture.cpp
                   LIBS engine agentlib testbed)
