# Which language is told to whom, through the real daemon with the catalogue as it is installed, in virtual time.
voltaria_system_test(system_language SOURCES language_test.cpp vt_stage.cpp bed.cpp)
