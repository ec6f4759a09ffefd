# The initial settings file, against the engine's tables and the manual.
voltaria_unit_test(initial_settings_test SANDBOX SOURCES initial_settings_test.cpp engine_fixture.cpp
                   LIBS engine agentlib controllib)
target_compile_definitions(initial_settings_test PRIVATE
  VOLTARIA_INITIAL_SETTINGS="${CMAKE_BINARY_DIR}/packaging/config"
  VOLTARIA_SETTINGS_PAGE="${PROJECT_SOURCE_DIR}/docs/man/voltaria-config.5")
