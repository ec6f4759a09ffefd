# Every fault in every phase of the agent's life, in virtual time: a test a cell (faults_table.h).
voltaria_system_test(system_faults SOURCES faults_test.cpp faults_stage.cpp faults_answer.cpp faults_line.cpp
                     faults_process.cpp faults_clock.cpp faults_files.cpp faults_clients.cpp faults_network.cpp
                     faults_load.cpp vt_stage.cpp bed.cpp)
