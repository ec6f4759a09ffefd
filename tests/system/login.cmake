# Logins with real accounts, through the real daemon.
voltaria_system_test(system_login SOURCES login_test.cpp bed.cpp)
target_link_libraries(system_login PRIVATE crypt)
