# The real daemon on the initial settings file.
voltaria_system_test(system_initial SOURCES initial_test.cpp bed.cpp)
target_compile_definitions(system_initial PRIVATE
  VOLTARIA_INITIAL_SETTINGS="${CMAKE_BINARY_DIR}/packaging/config")
