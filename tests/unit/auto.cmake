# The time arithmetic of the schedules. Touches no file, so it runs outside the sandbox.
voltaria_unit_test(auto_test SOURCES auto_test.cpp auto_property_test.cpp LIBS engine)
