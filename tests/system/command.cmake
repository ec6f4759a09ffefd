# Orders of monitors through the real daemon.
voltaria_system_test(system_order_by_monitor SOURCES order_by_monitor_test.cpp bed.cpp)
