# Many monitors on one agent: who is told what, and when.
voltaria_system_test(system_monitors SOURCES monitors_test.cpp vt_stage.cpp bed.cpp)
