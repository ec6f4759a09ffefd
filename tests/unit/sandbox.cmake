# The sandbox itself: seen from outside as whoever runs the tests and as an ordinary user, and from inside.
voltaria_unit_test(sandbox_test SOURCES sandbox_test.cpp LIBS testbed)
target_compile_definitions(sandbox_test PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin"
                                                VOLTARIA_SOURCE="${PROJECT_SOURCE_DIR}")
add_dependencies(sandbox_test sandbox standin sandbox_faulty)

voltaria_unit_test(sandbox_inside_test SANDBOX SOURCES sandbox_inside_test.cpp LIBS testbed SANDBOX_OPTIONS
                   --interfaces 3)

# A daemon with a memory fault, whatever the rest is built with.
add_executable(sandbox_faulty ${PROJECT_SOURCE_DIR}/tests/unit/sandbox_faulty.cpp)
target_compile_options(sandbox_faulty PRIVATE -fsanitize=address -O0)
target_link_options(sandbox_faulty PRIVATE -fsanitize=address)
