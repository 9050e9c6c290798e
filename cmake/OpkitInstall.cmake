# Install rules, the package configuration for find_package(opkit 3) and pkg-config, and the Debian packages of cpack.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(opkit_headers PROPERTIES EXPORT_NAME headers)
set_target_properties(opkit_modelkit PROPERTIES EXPORT_NAME modelkit)

install(TARGETS opkit opkit_headers EXPORT opkit-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/opkit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

install(TARGETS opkit_modelkit EXPORT opkit-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY modelkit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")

install(EXPORT opkit-targets NAMESPACE opkit:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/opkit COMPONENT development)
configure_package_config_file(cmake/opkit-config.cmake.in ${PROJECT_BINARY_DIR}/opkit-config.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/opkit)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/opkit-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/opkit-config.cmake ${PROJECT_BINARY_DIR}/opkit-config-version.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/opkit COMPONENT development)

configure_file(cmake/opkit.pc.in ${PROJECT_BINARY_DIR}/opkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/opkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(TARGET opkit_tool)
  install(TARGETS opkit_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES tools/opkit.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_CONTACT "the opkit authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libopkit3)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libopkit-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libopkit3 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME opkit)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libopkit3 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS libc6)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(CPack)
