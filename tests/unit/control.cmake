# The local management tool: the settings file as doctor reads it, and its checks of a directory tree that stands for a
# machine.
voltaria_unit_test(control_test SOURCES control_settings_test.cpp control_doctor_test.cpp control_status_test.cpp
                   LIBS controllib)
voltaria_unit_test(control_store_test SANDBOX SOURCES control_store_test.cpp LIBS controllib)
