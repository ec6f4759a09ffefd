# The exchanges shown in docs/protocol.md, played with the real daemon in virtual time.
voltaria_system_test(system_protocol_doc SOURCES protocol_doc_test.cpp vt_stage.cpp bed.cpp)
target_compile_definitions(system_protocol_doc PRIVATE VOLTARIA_DOCS="${PROJECT_SOURCE_DIR}/docs")
