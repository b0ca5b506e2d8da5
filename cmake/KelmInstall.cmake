# What `cmake --install` puts under the prefix, which may serve as KELM_INSTALL_DIR as it is.
foreach(program kelmdaemon kelmctl)
    if(TARGET ${program})
        install(TARGETS ${program} RUNTIME DESTINATION bin)
    endif()
endforeach()
install(FILES config/kelm_service.config DESTINATION config)
