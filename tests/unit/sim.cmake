voltaria_unit_test(sim_test SOURCES sim_protocol_test.cpp sim_status_pass_test.cpp sim_unit_test.cpp sim_line_test.cpp
                   sim_script_test.cpp sim_whole_test.cpp LIBS sim)

voltaria_unit_test(sim_program_test SOURCES sim_program_test.cpp LIBS sim)
target_compile_definitions(sim_program_test PRIVATE UPSSIM="$<TARGET_FILE:upssim>"
                           EVENING="${PROJECT_SOURCE_DIR}/sim/scenarios/evening.txt")
add_dependencies(sim_program_test upssim)
