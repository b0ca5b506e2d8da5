# libkelm.so.1 and libkelm.a: the C interface of kelm/kelm.h, and nothing else that others could see.
set(KELM_INTERFACE_VERSION 1.0.0)

foreach(part utils protocol client)
    set_target_properties(kelm_${part} PROPERTIES
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endforeach()

kelm_sources(sources FOLDER libkelm)
add_library(kelm_interface OBJECT ${sources})
target_link_libraries(kelm_interface PUBLIC kelm_flags PRIVATE kelm_client fmt::fmt-header-only)
# Types of the interface are compared with those that programs were built with.
target_compile_options(kelm_interface PRIVATE -g)
set_target_properties(kelm_interface PROPERTIES
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON UNITY_BUILD ${KELM_UNITY})
if(KELM_PCH)
    target_precompile_headers(kelm_interface REUSE_FROM kelm_pch)
endif()

set(kelm_map ${PROJECT_SOURCE_DIR}/libkelm/libkelm.map)
add_library(kelm SHARED $<TARGET_OBJECTS:kelm_interface>)
# By file and not by target: what the service's libraries depend on is not this library's affair.
target_link_libraries(kelm PRIVATE
    $<TARGET_FILE:kelm_client> $<TARGET_FILE:kelm_protocol> $<TARGET_FILE:kelm_utils>)
add_dependencies(kelm kelm_client kelm_protocol kelm_utils)
target_link_options(kelm PRIVATE -Wl,--version-script=${kelm_map} -Wl,--gc-sections -Wl,--as-needed)
set_target_properties(kelm PROPERTIES
    VERSION ${KELM_INTERFACE_VERSION} SOVERSION 1 LINK_DEPENDS ${kelm_map})
if(KELM_SANITIZE)
    target_link_options(kelm PRIVATE -fsanitize=${KELM_SANITIZE})
else()
    target_link_options(kelm PRIVATE -Wl,--no-undefined)
endif()
target_include_directories(kelm INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)

# One object whose names are its own but for the interface's.
set(kelm_object ${PROJECT_BINARY_DIR}/libkelm.o)
add_custom_command(OUTPUT ${kelm_object}
    COMMAND ${CMAKE_CXX_COMPILER} -r -nostdlib -Wl,--force-group-allocation -o ${kelm_object}
            $<TARGET_OBJECTS:kelm_interface>
            $<TARGET_FILE:kelm_client> $<TARGET_FILE:kelm_protocol> $<TARGET_FILE:kelm_utils>
    COMMAND ${CMAKE_OBJCOPY} --wildcard --keep-global-symbol=kelm_* ${kelm_object}
    DEPENDS kelm_interface $<TARGET_OBJECTS:kelm_interface> kelm_client kelm_protocol kelm_utils
    COMMAND_EXPAND_LISTS VERBATIM)
add_library(kelm_static STATIC ${kelm_object})
set_target_properties(kelm_static PROPERTIES
    OUTPUT_NAME kelm EXPORT_NAME static LINKER_LANGUAGE CXX)
target_include_directories(kelm_static INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
# By name: a program in C is linked by the C compiler.
target_link_libraries(kelm_static INTERFACE stdc++ m Threads::Threads)
