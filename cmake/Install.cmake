include(CMakePackageConfigHelpers)

# Two components, which become two packages: what a robot needs to run, and what builds against it.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME dev)
install(TARGETS orbel EXPORT orbelTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT orbelTargets NAMESPACE orbel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orbel)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/orbelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/orbelConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orbel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/orbelConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/orbelConfig.cmake ${PROJECT_BINARY_DIR}/orbelConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orbel)

# Relative to the file itself: the prefix may still be chosen, or moved, at installation.
file(RELATIVE_PATH ORBEL_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/orbel.pc.in ${PROJECT_BINARY_DIR}/orbel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orbel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
