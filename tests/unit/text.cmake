# Japanese text, messages, debug output and string functions. engine.cmake uses the catalogue too.
include_guard()
voltaria_unit_test(text_strings_test SOURCES text_strings_test.cpp LIBS agentlib)
voltaria_unit_test(text_detect_test SOURCES text_detect_test.cpp LIBS agentlib)
voltaria_unit_test(text_convert_test SOURCES text_convert_test.cpp LIBS agentlib)
voltaria_unit_test(text_output_test SANDBOX SOURCES text_output_test.cpp LIBS agentlib)
voltaria_unit_test(text_message_test SANDBOX SOURCES text_message_test.cpp LIBS agentlib)

# One test catalogue, compiled in both character sets that the lookup may meet.
find_program(MSGFMT msgfmt REQUIRED)
find_program(MSGCONV msgconv REQUIRED)
set(text_po ${CMAKE_CURRENT_LIST_DIR}/text_catalogue.po)
set(text_mo_utf8 ${CMAKE_CURRENT_BINARY_DIR}/text_catalogue_utf8.mo)
set(text_mo_euc ${CMAKE_CURRENT_BINARY_DIR}/text_catalogue_euc.mo)
add_custom_command(
  OUTPUT ${text_mo_utf8} ${text_mo_euc}
  COMMAND ${MSGFMT} -o ${text_mo_utf8} ${text_po}
  COMMAND ${MSGCONV} -t EUC-JP -o ${text_mo_euc}.po ${text_po}
  COMMAND ${MSGFMT} -o ${text_mo_euc} ${text_mo_euc}.po
  DEPENDS ${text_po} VERBATIM)
target_sources(text_message_test PRIVATE ${text_mo_utf8} ${text_mo_euc})
target_compile_definitions(text_message_test PRIVATE TEXT_CATALOGUE_UTF8="${text_mo_utf8}"
                                                     TEXT_CATALOGUE_EUC="${text_mo_euc}")
