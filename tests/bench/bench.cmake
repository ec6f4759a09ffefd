# Figures, not tests: build/dev/bin/sandbox -- build/dev/bin/bench_agent [models|flips|requests|idle]
add_executable(bench_agent ${CMAKE_CURRENT_SOURCE_DIR}/bench/bench_agent.cpp)
target_compile_definitions(bench_agent PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
target_link_libraries(bench_agent PRIVATE voltaria_options testbed)
add_dependencies(bench_agent voltariad upssim sandbox standin)
