# The manual pages and the completions of command lines: clean, and complete by the programs' own help texts and the
# tables of the sources.
find_program(MANDOC mandoc REQUIRED)
find_program(GROFF groff REQUIRED)
set(checks clean related voltaria voltariactl upssim settings events schedules handbook links bash zsh installed
    sees_faults)
foreach(check ${checks})
  add_test(NAME manual.${check} COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/manual_test.sh ${PROJECT_SOURCE_DIR}
                                        ${CMAKE_BINARY_DIR} check_${check})
  set_tests_properties(manual.${check} PROPERTIES LABELS manual TIMEOUT 300)
endforeach()
