# cmake --install puts the headers, the libraries and a CMake package in a prefix:
#   find_package(libKestrel CONFIG REQUIRED)
#   target_link_libraries(host PRIVATE libKestrel::libKestrel)
include(CMakePackageConfigHelpers)

set(KESTREL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libKestrel)

install(TARGETS tova libKestrel EXPORT libKestrelTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY support/include/ libKestrel/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    PATTERN internal EXCLUDE)
install(EXPORT libKestrelTargets NAMESPACE libKestrel:: DESTINATION ${KESTREL_CMAKE_DIR})

configure_package_config_file(cmake/libKestrelConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/libKestrelConfig.cmake
    INSTALL_DESTINATION ${KESTREL_CMAKE_DIR}
    PATH_VARS KESTREL_SIM_INSTALL_DIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/libKestrelConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libKestrelConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/libKestrelConfigVersion.cmake
    DESTINATION ${KESTREL_CMAKE_DIR})

# pkg-config, for builds without CMake; relocatable, as the package is.
file(RELATIVE_PATH pkgconfig_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/libKestrel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/libKestrel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libKestrel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
