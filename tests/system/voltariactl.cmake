# The local management tool against the real daemon.
find_package(nlohmann_json REQUIRED)
voltaria_system_test(system_voltariactl SOURCES voltariactl_test.cpp voltariactl_doctor_test.cpp
                     voltariactl_start_test.cpp bed.cpp LIBS nlohmann_json::nlohmann_json)
