# The stepped clock, with a program that only makes the calls it is told to make.
add_executable(vclock_actor ${PROJECT_SOURCE_DIR}/tests/unit/vclock_actor.cpp)
target_link_libraries(vclock_actor PRIVATE voltaria_support_options)
voltaria_unit_test(vclock_test SOURCES vclock_test.cpp LIBS testbed)
target_compile_definitions(vclock_test PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
add_dependencies(vclock_test vclock_actor)
