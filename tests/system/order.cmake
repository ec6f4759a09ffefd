# Orders to the unit through the real daemon.
voltaria_system_test(system_order SOURCES order_test.cpp bed.cpp vt_stage.cpp)
target_include_directories(system_order PRIVATE ${PROJECT_SOURCE_DIR}/agent)
