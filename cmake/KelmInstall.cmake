include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelm)
configure_package_config_file(cmake/kelmConfig.cmake.in ${PROJECT_BINARY_DIR}/kelmConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelmConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelmConfig.cmake ${PROJECT_BINARY_DIR}/kelmConfigVersion.cmake
    DESTINATION ${package_dir})

set(installed_targets kelm kelm_lanes)
if(KELM_HAVE_CUDA)
    list(APPEND installed_targets kelm_cuda)
endif()
install(TARGETS ${installed_targets} EXPORT kelmTargets FILE_SET HEADERS)
install(EXPORT kelmTargets NAMESPACE kelm:: DESTINATION ${package_dir})

# All that is installed, without the emulated device.
add_custom_target(kelm-libraries DEPENDS ${installed_targets} kelm_backends)
if(KELM_HAVE_THREADS)
    add_dependencies(kelm-libraries kelm_threads)
endif()
if(KELM_HAVE_MPI)
    add_dependencies(kelm-libraries kelm_mpi)
endif()

# Separate exports, so that a project with only kelm::kelm needs no oneTBB and no MPI.
if(KELM_HAVE_THREADS)
    install(TARGETS kelm_threads EXPORT kelmThreadsTargets FILE_SET HEADERS)
    install(EXPORT kelmThreadsTargets NAMESPACE kelm:: DESTINATION ${package_dir})
endif()
if(KELM_HAVE_MPI)
    install(TARGETS kelm_mpi EXPORT kelmMpiTargets FILE_SET HEADERS)
    install(EXPORT kelmMpiTargets NAMESPACE kelm:: DESTINATION ${package_dir})
endif()

# Also separate: it needs what its backends need.
install(TARGETS kelm_backends EXPORT kelmBackendsTargets FILE_SET HEADERS)
install(EXPORT kelmBackendsTargets NAMESPACE kelm:: DESTINATION ${package_dir})
