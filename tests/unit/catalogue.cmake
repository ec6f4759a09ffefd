# The Japanese message catalogue, against the texts that the sources look up. Those are taken from the sources when the
# test is built: the first argument of the functions that pass a text through the catalogue, and every text of the files
# whose tables hold such texts. ./check sees to it that no lookup is left out.
voltaria_unit_test(catalogue_test SOURCES catalogue_test.cpp LIBS engine agentlib testbed)
find_program(XGETTEXT xgettext REQUIRED)
find_program(MSGEN msgen REQUIRED)
find_program(MSGFMT msgfmt REQUIRED)

set(catalogue_calls --keyword --keyword=GETTEXTj --keyword=notify --keyword=notice_compose --keyword=cominit_failed
    --keyword=open_pages:2)
set(catalogue_tables ea/e_a_event_table.h ea/e_a_timer_warn.cpp)
file(GLOB catalogue_sources CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/ea/*.cpp
     ${PROJECT_SOURCE_DIR}/agent/*.cpp)
list(TRANSFORM catalogue_sources PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE catalogue_inputs)
list(TRANSFORM catalogue_tables PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE catalogue_table_inputs)
set(catalogue_english ${CMAKE_CURRENT_LIST_DIR}/catalogue_english.po)
set(catalogue_ids ${CMAKE_CURRENT_BINARY_DIR}/catalogue_ids)
add_custom_command(
  OUTPUT ${catalogue_ids}.mo
  COMMAND ${XGETTEXT} --c++ --from-code=UTF-8 --omit-header ${catalogue_calls} -D ${PROJECT_SOURCE_DIR} -o ${catalogue_ids}.pot
          ${catalogue_sources}
  COMMAND ${XGETTEXT} --c++ --from-code=UTF-8 --omit-header --extract-all --join-existing
          -x ${catalogue_english} -D ${PROJECT_SOURCE_DIR} -o ${catalogue_ids}.pot ${catalogue_tables}
  COMMAND ${MSGEN} -o ${catalogue_ids}.po ${catalogue_ids}.pot
  COMMAND ${MSGFMT} --no-hash -o ${catalogue_ids}.mo ${catalogue_ids}.po
  DEPENDS ${catalogue_inputs} ${catalogue_table_inputs} ${catalogue_english}
  VERBATIM)
target_sources(catalogue_test PRIVATE ${catalogue_ids}.mo)
add_dependencies(catalogue_test catalogue)
get_target_property(catalogue_built catalogue CATALOGUE_FILE)
target_compile_definitions(catalogue_test PRIVATE CATALOGUE="${catalogue_built}"
                                                  LOOKED_UP="${catalogue_ids}.mo"
                                                  DOCUMENT="${PROJECT_SOURCE_DIR}/docs/protocol.md")
