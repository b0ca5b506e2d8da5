# The manual and the completion of the shells, made at each build of the command trees, the key
# table and docs/; the parts of docs/ that are made of the same, on demand.
kelm_program(kelm_pages FOLDER tools/pages DEPENDS kelm_kelmctl kelm_shell kelm_gateway)
set_source_files_properties(tools/pages/ManPages.cpp PROPERTIES
    COMPILE_DEFINITIONS KELM_VERSION="${PROJECT_VERSION}")
file(GLOB docs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
set(KELM_PAGES_DIR ${PROJECT_BINARY_DIR}/pages)
add_custom_command(OUTPUT ${KELM_PAGES_DIR}/stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${KELM_PAGES_DIR}
    COMMAND kelm_pages make ${PROJECT_SOURCE_DIR}/docs ${KELM_PAGES_DIR}/share
    COMMAND ${CMAKE_COMMAND} -E touch ${KELM_PAGES_DIR}/stamp
    DEPENDS kelm_pages ${docs} VERBATIM)
add_custom_target(pages ALL DEPENDS ${KELM_PAGES_DIR}/stamp)
add_custom_target(renew_docs COMMAND kelm_pages renew ${PROJECT_SOURCE_DIR}/docs VERBATIM)
install(DIRECTORY ${KELM_PAGES_DIR}/share/ DESTINATION ${CMAKE_INSTALL_DATADIR})
