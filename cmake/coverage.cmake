# The coverage build (preset `coverage`): the product is measured, the tests and their tools are not. Every program is
# linked with what writes the counters of processes that are killed or replaced (tests/support/coverage_exits.cpp).
# Counters lie beside the objects, and the sandbox keeps the build directory at its own path.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(FATAL_ERROR "The coverage build wants g++")
endif()
foreach(target engine agentlib voltariad sim upssim monitorlib voltaria controllib voltariactl)
  target_compile_options(${target} PRIVATE -O0 --coverage -fprofile-abs-path -fprofile-update=atomic)
endforeach()

add_library(coverage_exits STATIC ${PROJECT_SOURCE_DIR}/tests/support/coverage_exits.cpp)
target_compile_definitions(coverage_exits PRIVATE _GNU_SOURCE)
target_compile_options(coverage_exits PRIVATE -O2 -Wall -Wextra -Wshadow -Wconversion -Werror)
target_link_options(coverage_exits INTERFACE LINKER:--wrap=kill,--wrap=_exit,--wrap=execve,--wrap=execl
                    LINKER:-u,__wrap_kill)
target_link_libraries(voltaria_options INTERFACE coverage_exits)
target_link_options(voltaria_options INTERFACE --coverage LINKER:-u,__gcov_dump,-u,__gcov_reset)
target_link_libraries(sandbox PRIVATE coverage_exits)
