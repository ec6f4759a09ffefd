# The live demo on a pseudo-terminal. Its player is not built with sanitizers; that of another build can be tested.
voltaria_system_test(system_demo_live SOURCES demo_live_test.cpp bed.cpp ../unit/monitor_terminal.cpp)
target_compile_definitions(system_demo_live PRIVATE VOLTARIA_PROGRAM="/usr/bin/env")
if(TARGET demo_play)
  add_dependencies(system_demo_live demo_play)
endif()
