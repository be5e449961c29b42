# What lets other projects find the installed library: find_package(es_acl) and pkg-config es_acl. Both work out where
# they are from their own place, so that an installed tree can be moved.
include(CMakePackageConfigHelpers)

set(ES_ACL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/es_acl)
set(ES_ACL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The targets are added to es_acl_targets where they are made.
install(EXPORT es_acl_targets NAMESPACE es_acl:: DESTINATION ${ES_ACL_CMAKE_DIR})
configure_package_config_file(cmake/es_acl-config.cmake.in ${PROJECT_BINARY_DIR}/es_acl-config.cmake
                              INSTALL_DESTINATION ${ES_ACL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/es_acl-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/es_acl-config.cmake ${PROJECT_BINARY_DIR}/es_acl-config-version.cmake
        DESTINATION ${ES_ACL_CMAKE_DIR})

file(RELATIVE_PATH ES_ACL_PREFIX_FROM_PKGCONFIG /prefix/${ES_ACL_PKGCONFIG_DIR} /prefix)
configure_file(cmake/es_acl.pc.in ${PROJECT_BINARY_DIR}/es_acl.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/es_acl.pc DESTINATION ${ES_ACL_PKGCONFIG_DIR})
