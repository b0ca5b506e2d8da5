# The page of `kelmctl export`: its files become texts of the program.
set(page ${PROJECT_SOURCE_DIR}/tools/kelmctl/export/page)
foreach(part html css js)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page}/page.${part})
    file(READ ${page}/page.${part} PAGE_${part})
endforeach()
configure_file(${page}/PageFiles.cpp.in PageFiles.cpp @ONLY)

kelm_sources(page_sources FOLDER tools/kelmctl/export/page)
target_sources(kelm_kelmctl PRIVATE ${page_sources} ${CMAKE_CURRENT_BINARY_DIR}/PageFiles.cpp)
