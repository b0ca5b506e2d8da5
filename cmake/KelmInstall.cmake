# What `cmake --install` puts under the prefix, which may serve as KELM_INSTALL_DIR as it is.
include(CMakePackageConfigHelpers)

foreach(program kelmdaemon kelmctl kelm-gateway)
    if(TARGET ${program})
        install(TARGETS ${program} RUNTIME DESTINATION bin)
    endif()
endforeach()
install(FILES config/kelm_service.config DESTINATION config)

# The simulator, for those who ask for it, as an install directory of its own: the service looks for
# the boot tool there.
set(simulator_dir lib/kelm/simulator)
set(for_simulator EXCLUDE_FROM_ALL COMPONENT simulator)
foreach(target kelm-usb-bus kelm-sim-load tevo-kelm ion)
    if(TARGET ${target})
        install(TARGETS ${target} ${for_simulator}
                RUNTIME DESTINATION ${simulator_dir}
                LIBRARY DESTINATION ${simulator_dir} NAMELINK_SKIP)
    endif()
endforeach()
install(TARGETS autoboot ${for_simulator} RUNTIME DESTINATION ${simulator_dir}/bin)
install(FILES tools/simulator/kelm_service.config ${for_simulator}
        DESTINATION ${simulator_dir}/config)
install(FILES tools/simulator/example.graph ${for_simulator} DESTINATION ${simulator_dir})

# The client library, shared and static, for CMake as kelm::kelm and kelm::static, and for pkg-config.
install(TARGETS kelm kelm_static EXPORT kelm-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION include)
install(FILES kelm/kelm.h kelm/kelm.hpp DESTINATION include/kelm)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelm)
install(EXPORT kelm-targets NAMESPACE kelm:: DESTINATION ${package_dir})
configure_package_config_file(cmake/kelm-config.cmake.in kelm-config.cmake
                              INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(kelm-config-version.cmake
                                 VERSION ${KELM_INTERFACE_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelm-config.cmake
              ${PROJECT_BINARY_DIR}/kelm-config-version.cmake DESTINATION ${package_dir})
# Relative, so that the prefix may be moved or given at the installation.
file(RELATIVE_PATH KELM_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/kelm.pc.in kelm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
