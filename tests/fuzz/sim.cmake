voltaria_fuzz_target(fuzz_sim_script SOURCES fuzz_sim_script.cpp LIBS sim)
voltaria_fuzz_target(fuzz_sim_line SOURCES fuzz_sim_line.cpp LIBS sim)
