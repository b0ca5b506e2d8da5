# The helpers by which the folders become targets, and the compiler flags that all share.

add_library(kelm_flags INTERFACE)
target_compile_options(kelm_flags INTERFACE
    -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wfloat-conversion -Werror
    # Both compilers must take the same scheduling decisions from the same floats.
    -ffp-contract=off
    -fno-omit-frame-pointer
    # Everything may become part of the shared library; nothing of it is replaced at run time.
    -fno-semantic-interposition)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
target_include_directories(kelm_flags INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/service/src)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(kelm_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(KELM_FUZZ)
    target_compile_options(kelm_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(KELM_SANITIZE)
    target_compile_options(kelm_flags INTERFACE -fsanitize=${KELM_SANITIZE} -fno-sanitize-recover=all)
    target_link_options(kelm_flags INTERFACE -fsanitize=${KELM_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # GCC 12 takes the sanitizers' own code in the standard library's headers for a fault.
        target_compile_options(kelm_flags INTERFACE -Wno-maybe-uninitialized)
    endif()
    if(KELM_SANITIZE MATCHES "undefined")
        target_compile_options(kelm_flags INTERFACE -fsanitize=float-cast-overflow)
    endif()
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Unique symbols could not be made local in the static library.
    target_compile_options(kelm_flags INTERFACE -fno-gnu-unique)
endif()

find_program(KELM_CCACHE ccache)
if(KELM_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER
        env CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_NOHASHDIR=1
            CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} ${KELM_CCACHE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(kelm_flags INTERFACE -fpch-preprocess)
    endif()
endif()

# The precompiled standard headers, made once and shared by every library. The analysis build goes
# without, so that a missing include is found.
option(KELM_PCH "Precompile the standard headers" ON)
if(KELM_PCH)
    add_library(kelm_pch STATIC ${PROJECT_SOURCE_DIR}/cmake/PchAnchor.cpp)
    target_link_libraries(kelm_pch PRIVATE kelm_flags)
    target_precompile_headers(kelm_pch PRIVATE ${PROJECT_SOURCE_DIR}/cmake/StandardPch.h)
endif()

# Compiles several files of a folder as one, which takes half the time: for the sanitizers and
# clang-tidy, while the other builds see each file alone. Names without linkage must differ within a
# folder, too.
option(KELM_UNITY "Compile the files of a folder together" OFF)
if(KELM_UNITY)
    # Warnings about two files that meet only here.
    target_compile_options(kelm_flags INTERFACE -Wno-shadow
        $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()

# Collects the sources of some folders, without descending, into `out`.
function(kelm_sources out)
    cmake_parse_arguments(ARG "" "" "FOLDER;EXCLUDE" ${ARGN})
    set(sources)
    foreach(folder IN LISTS ARG_FOLDER)
        file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
        list(APPEND sources ${found})
    endforeach()
    foreach(name IN LISTS ARG_EXCLUDE)
        list(FILTER sources EXCLUDE REGEX "/${name}$")
    endforeach()
    set(${out} ${sources} PARENT_SCOPE)
endfunction()

# kelm_library(name FOLDER dir... [EXCLUDE file...] [DEPENDS target...] [APART] [PLAIN]): the static
# library kelm_<name>; APART: each file an object of its own in any build, of which the linker takes
# some; PLAIN: a sanitizer's build does not optimise it, since compiling it takes longer than its tests.
function(kelm_library name)
    cmake_parse_arguments(ARG "APART;PLAIN" "" "FOLDER;EXCLUDE;DEPENDS" ${ARGN})
    kelm_sources(sources FOLDER ${ARG_FOLDER} EXCLUDE ${ARG_EXCLUDE})
    if(sources)
        add_library(kelm_${name} STATIC ${sources})
        target_link_libraries(kelm_${name} PUBLIC kelm_flags ${ARG_DEPENDS})
        if(NOT ARG_APART)
            set_target_properties(kelm_${name} PROPERTIES UNITY_BUILD ${KELM_UNITY})
        endif()
        if(ARG_PLAIN AND KELM_SANITIZE AND NOT KELM_FUZZ)
            target_compile_options(kelm_${name} PRIVATE -O0)
        elseif(KELM_PCH)
            target_precompile_headers(kelm_${name} REUSE_FROM kelm_pch)
        endif()
    else()
        add_library(kelm_${name} INTERFACE)
        target_link_libraries(kelm_${name} INTERFACE kelm_flags ${ARG_DEPENDS})
    endif()
endfunction()

# kelm_program(name [FOLDER dir...] [SOURCES file...] DEPENDS target...)
function(kelm_program name)
    cmake_parse_arguments(ARG "" "" "FOLDER;SOURCES;DEPENDS" ${ARGN})
    kelm_sources(sources FOLDER ${ARG_FOLDER})
    foreach(file IN LISTS ARG_SOURCES)
        if(EXISTS ${PROJECT_SOURCE_DIR}/${file})
            list(APPEND sources ${PROJECT_SOURCE_DIR}/${file})
        endif()
    endforeach()
    if(sources)
        add_executable(${name} ${sources})
        target_link_libraries(${name} PRIVATE kelm_flags ${ARG_DEPENDS})
        set_target_properties(${name} PROPERTIES UNITY_BUILD ${KELM_UNITY})
    endif()
endfunction()

# What test programs and their precompiled header are compiled with. Optimising the tests themselves
# doubles the time of a sanitizer build and finds nothing.
add_library(kelm_test_flags INTERFACE)
target_link_libraries(kelm_test_flags INTERFACE kelm_flags GTest::gmock_main)
target_include_directories(kelm_test_flags INTERFACE ${PROJECT_SOURCE_DIR}/tests)
if(KELM_SANITIZE)
    target_compile_options(kelm_test_flags INTERFACE -O0)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 takes short strings that tests build in place for overruns when it optimises.
    target_compile_options(kelm_test_flags INTERFACE
        -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread -Wno-restrict)
endif()

# kelm_test(name DEPENDS target... [PROPERTIES ...]): tests/<name>/*.cpp as the program test_<name>,
# one ctest case a test, so that each runs in a process of its own.
function(kelm_test name)
    cmake_parse_arguments(ARG "" "" "DEPENDS;PROPERTIES" ${ARGN})
    kelm_sources(sources FOLDER tests/${name})
    if(NOT sources)
        return()
    endif()
    add_executable(test_${name} ${sources})
    target_link_libraries(test_${name} PRIVATE kelm_test_flags ${ARG_DEPENDS})
    target_precompile_headers(test_${name} REUSE_FROM kelm_test_pch)
    set_target_properties(test_${name} PROPERTIES UNITY_BUILD ${KELM_UNITY})
    gtest_discover_tests(test_${name} DISCOVERY_MODE PRE_TEST
        PROPERTIES TIMEOUT 300 ${ARG_PROPERTIES})
endfunction()
