# Both processes at work on the shared block at the same moment, seen by a third; and what they hold after an hour.
add_library(race_clock SHARED ${PROJECT_SOURCE_DIR}/tests/support/race_preload.cpp)
target_link_libraries(race_clock PRIVATE voltaria_support_options)
target_compile_options(race_clock PRIVATE -O2 -fvisibility=hidden -fno-exceptions -fno-rtti -fno-threadsafe-statics)
target_link_options(race_clock PRIVATE -Wl,--as-needed -static-libgcc)
set_target_properties(race_clock PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

voltaria_system_test(system_race SOURCES race_test.cpp race_stage.cpp race_block.cpp vt_stage.cpp bed.cpp)
target_compile_definitions(system_race PRIVATE VOLTARIA_RACE_CLOCK="$<TARGET_FILE:race_clock>")
if(VOLTARIA_SANITIZE)
  set(sanitized 1)
else()
  set(sanitized 0)
endif()
target_compile_definitions(system_race PRIVATE VOLTARIA_SANITIZED=${sanitized})
add_dependencies(system_race race_clock)
set_source_files_properties(${PROJECT_SOURCE_DIR}/tests/system/race_block.cpp PROPERTIES COMPILE_OPTIONS -O2
                            SKIP_PRECOMPILE_HEADERS ON)
voltaria_system_test(system_life SOURCES life_test.cpp vt_stage.cpp bed.cpp)
