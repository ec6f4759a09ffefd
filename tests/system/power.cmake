# Mains failures, orders to go down and the grace, through the real daemon, in virtual time.
voltaria_system_test(system_power SOURCES power_test.cpp vt_stage.cpp bed.cpp)
voltaria_system_test(system_power_order SOURCES power_order_test.cpp vt_stage.cpp bed.cpp)
voltaria_system_test(system_power_story SOURCES power_story_test.cpp vt_stage.cpp bed.cpp)
voltaria_system_test(system_grace SOURCES grace_test.cpp vt_stage.cpp bed.cpp)
voltaria_system_test(system_family SOURCES family_test.cpp vt_stage.cpp bed.cpp)
