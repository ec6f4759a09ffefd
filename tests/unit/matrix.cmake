# The competing deadlines, played through the engine's entry. The clock that does not jump stands between two turns, so
# that a busy machine shortens no grace.
voltaria_unit_test(engine_matrix_test SANDBOX SOURCES engine_matrix_test.cpp engine_matrix.cpp engine_fixture.cpp LIBS
                   engine agentlib)
target_link_options(engine_matrix_test PRIVATE LINKER:--wrap=clock_gettime)
