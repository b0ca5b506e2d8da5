# What `cmake --install` puts under the prefix, which may serve as KELM_INSTALL_DIR as it is.
foreach(program kelmdaemon kelmctl)
    if(TARGET ${program})
        install(TARGETS ${program} RUNTIME DESTINATION bin)
    endif()
endforeach()
install(FILES config/kelm_service.config DESTINATION config)

# The client library as libkelm, with the static libraries below it. Its headers include one another
# as "client/...", so the folder keeps its name; pkg-config knows the rest.
foreach(library client protocol utils)
    install(TARGETS kelm_${library} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
endforeach()
install(FILES client/Client.h client/Error.h client/Snapshot.h client/SnapshotReader.h
              client/Status.h client/TensorPool.h
        DESTINATION include/kelm/client)
# Relative, so that the prefix may be moved or given at the installation.
file(RELATIVE_PATH KELM_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/kelm.pc.in kelm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
