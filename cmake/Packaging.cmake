# Installs the library (with its SONAME links), the public headers, a CMake
# package (find_package(talvoem_query_sys) -> talvoem_query_sys::talvoem_query_sys)
# and a pkg-config file. Nothing installed names the prefix: the package and
# the .pc file find it from their own place, and the tools find the library
# through a run path relative to themselves, so the tree may be moved.
include(CMakePackageConfigHelpers)

set(TALVOEM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/talvoem_query_sys)

install(TARGETS talvoem_query_sys EXPORT talvoem_query_sys_targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talvoem_query_sys
        FILES_MATCHING PATTERN "*.h")
install(EXPORT talvoem_query_sys_targets NAMESPACE talvoem_query_sys::
        FILE talvoem_query_sysTargets.cmake DESTINATION ${TALVOEM_CMAKE_DIR})

configure_package_config_file(cmake/talvoem_query_sysConfig.cmake.in
  ${PROJECT_BINARY_DIR}/talvoem_query_sysConfig.cmake INSTALL_DESTINATION ${TALVOEM_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/talvoem_query_sysConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/talvoem_query_sysConfig.cmake
              ${PROJECT_BINARY_DIR}/talvoem_query_sysConfigVersion.cmake
        DESTINATION ${TALVOEM_CMAKE_DIR})

file(RELATIVE_PATH TALVOEM_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(cmake/talvoem_query_sys.pc.in ${PROJECT_BINARY_DIR}/talvoem_query_sys.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/talvoem_query_sys.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
