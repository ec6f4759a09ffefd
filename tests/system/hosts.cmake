# Several hosts joined by a bridge: agents and monitors that find, hear and take down each other.
voltaria_system_test(system_hosts SOURCES hosts_test.cpp hosts_stage.cpp bed.cpp SANDBOX_OPTIONS --bridge lan)
target_compile_definitions(system_hosts PRIVATE VOLTARIA_CATALOGUE="${PROJECT_SOURCE_DIR}/locale/ja/voltariad.po")
