# How many monitors the agent reaches, by the number of the host's addresses: lo and one interface, lo and three.
foreach(interfaces 1 3)
  math(EXPR addresses "${interfaces} + 1")
  set(bound system_bound_${addresses})
  voltaria_system_test(${bound} SOURCES bound_test.cpp bed.cpp SANDBOX_OPTIONS --interfaces ${interfaces})
  target_compile_definitions(${bound} PRIVATE VOLTARIA_DOCS="${PROJECT_SOURCE_DIR}/docs"
                                              VOLTARIA_ADDRESSES=${addresses}u)
endforeach()
