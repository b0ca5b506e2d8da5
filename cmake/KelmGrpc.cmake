# gRPC, and what its generator makes.
find_package(Protobuf REQUIRED)
find_program(KELM_GRPC_PLUGIN grpc_cpp_plugin REQUIRED)
find_package(gRPC CONFIG REQUIRED)

# kelm_protos(name file...): the static library `name`, whose headers are found in angle brackets, and
# the target `name`_code, which makes its sources alone.
# Apart from our warnings and checks, which generated code does not bear.
function(kelm_protos name)
    set(generated ${CMAKE_CURRENT_BINARY_DIR}/${name})
    file(MAKE_DIRECTORY ${generated})
    set(sources)
    foreach(file IN LISTS ARGN)
        cmake_path(ABSOLUTE_PATH file BASE_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
        cmake_path(GET file PARENT_PATH folder)
        cmake_path(GET file STEM stem)
        set(made)
        foreach(ending IN ITEMS pb.cc pb.h grpc.pb.cc grpc.pb.h)
            list(APPEND made ${generated}/${stem}.${ending})
        endforeach()
        add_custom_command(
            OUTPUT ${made}
            COMMAND protobuf::protoc --proto_path=${folder} --cpp_out=${generated}
                    --grpc_out=${generated} --plugin=protoc-gen-grpc=${KELM_GRPC_PLUGIN} ${file}
            DEPENDS ${file})
        list(APPEND sources ${made})
    endforeach()
    add_custom_target(${name}_code DEPENDS ${sources})
    add_library(${name} STATIC ${sources})
    set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
    target_include_directories(${name} SYSTEM PUBLIC ${generated})
    # Its guard keeps out a header of old names, some of which are our own (utils/ThreadAnnotations.h).
    target_compile_definitions(${name} PUBLIC ABSL_BASE_INTERNAL_THREAD_ANNOTATIONS_H_)
    # As the library was built, whose maps are laid out in another way with this sanitizer.
    target_compile_options(${name} PRIVATE -U__SANITIZE_THREAD__)
    # The ends of shared pointers that programs export take the place of the library's own. The sanitizer
    # would see them in its threads as ours, and not how it counts.
    if(KELM_SANITIZE STREQUAL "thread")
        target_link_options(${name} INTERFACE
            LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/OwnSharedPointers.map)
    endif()
    # Without their compiler flags, which our precompiled headers do not have.
    target_link_libraries(${name} PUBLIC $<LINK_ONLY:gRPC::grpc++> $<LINK_ONLY:protobuf::libprotobuf>)
endfunction()
