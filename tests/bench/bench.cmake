# Figures, not tests, and none that sanitized programs could give; each is run in the sandbox
# (build/dev/bin/sandbox -- build/dev/bin/NAME [PART]):
#   bench_agent     models, flips, requests, idle
#   bench_engine    turn, settings, paging
#   bench_group     of so many agents; the sandbox with --bridge lan
#   bench_protocol  rates, memory, connects
#   bench_shutdown  failure, deadline
if(VOLTARIA_SANITIZE)
  return()
endif()

add_executable(bench_agent ${CMAKE_CURRENT_SOURCE_DIR}/bench/bench_agent.cpp)
target_compile_definitions(bench_agent PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
target_link_libraries(bench_agent PRIVATE voltaria_options testbed)
add_dependencies(bench_agent voltariad upssim sandbox standin)

add_executable(bench_group ${CMAKE_CURRENT_SOURCE_DIR}/bench/bench_group.cpp)
target_compile_definitions(bench_group PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
target_link_libraries(bench_group PRIVATE voltaria_options testbed)
add_dependencies(bench_group voltariad upssim sandbox standin)

add_executable(bench_protocol ${CMAKE_CURRENT_SOURCE_DIR}/bench/bench_protocol.cpp)
target_include_directories(bench_protocol PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_definitions(bench_protocol PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
target_link_libraries(bench_protocol PRIVATE voltaria_options testbed)
add_dependencies(bench_protocol voltariad upssim sandbox standin)

add_executable(bench_shutdown ${CMAKE_CURRENT_SOURCE_DIR}/bench/bench_shutdown.cpp)
target_compile_definitions(bench_shutdown PRIVATE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
target_link_libraries(bench_shutdown PRIVATE voltaria_options testbed)
add_dependencies(bench_shutdown voltariad upssim sandbox standin)

# Counts allocations in place of the C library, where a sanitizer would stand.
add_executable(bench_engine ${CMAKE_CURRENT_SOURCE_DIR}/bench/bench_engine.cpp)
target_link_libraries(bench_engine PRIVATE voltaria_options engine agentlib testbed)
add_dependencies(bench_engine sandbox standin)
