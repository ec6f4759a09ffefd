# The shutdown timer.
voltaria_unit_test(engine_timer_test SANDBOX SOURCES engine_timer_test.cpp engine_timer_edge_test.cpp engine_fixture.cpp
                   LIBS engine agentlib testbed)
# The texts for users. One test looks a text up in the catalogue of text.cmake.
voltaria_unit_test(engine_notice_test SANDBOX SOURCES engine_notice_test.cpp engine_fixture.cpp LIBS engine agentlib)
target_sources(engine_notice_test PRIVATE ${text_mo_euc})
target_compile_definitions(engine_notice_test PRIVATE TEXT_CATALOGUE_EUC="${text_mo_euc}")
