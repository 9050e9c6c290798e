# Install rules, the package configuration for find_package(opkit 3) and pkg-config, and the Debian packages of cpack.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(opkit_headers PROPERTIES EXPORT_NAME headers)
set_target_properties(opkit_modelkit PROPERTIES EXPORT_NAME modelkit)

install(TARGETS opkit EXPORT opkit-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS opkit_headers EXPORT opkit-targets)
install(DIRECTORY include/opkit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# modelkit's headers, without those that show a JSON library, and without the file format where that library is missing.
set(opkit_private_headers "/(json_fields|model_text|model_writer)\\.h$")
if(NOT nlohmann_json_FOUND)
  set(opkit_private_headers "/(json_fields|model_text|model_writer|model_file)\\.h$")
endif()
install(TARGETS opkit_modelkit EXPORT opkit-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
file(GLOB opkit_modelkit_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/modelkit/*.h)
list(FILTER opkit_modelkit_headers EXCLUDE REGEX "${opkit_private_headers}")
install(FILES ${opkit_modelkit_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/modelkit COMPONENT development)

set(opkit_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/opkit)
install(EXPORT opkit-targets NAMESPACE opkit:: DESTINATION ${opkit_package_dir} COMPONENT development)
configure_package_config_file(cmake/opkit-config.cmake.in ${PROJECT_BINARY_DIR}/opkit-config.cmake
                              INSTALL_DESTINATION ${opkit_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/opkit-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/opkit-config.cmake ${PROJECT_BINARY_DIR}/opkit-config-version.cmake
        DESTINATION ${opkit_package_dir} COMPONENT development)

# The .pc file finds the prefix from where it lies, so that an installed tree may be moved.
file(RELATIVE_PATH opkit_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" opkit_pc_to_prefix "${opkit_pc_to_prefix}")
configure_file(cmake/opkit.pc.in ${PROJECT_BINARY_DIR}/opkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/opkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(opkit_components runtime development)
if(TARGET opkit_tool)
  file(RELATIVE_PATH opkit_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(opkit_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${opkit_bin_to_lib}")
  install(TARGETS opkit_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES tools/opkit.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  list(APPEND opkit_components tools)
endif()

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

# libopkit3 holds the library, libopkit-dev what it takes to build with it, opkit the program.
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${opkit_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "the opkit authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, modelkit, and files for CMake and pkg-config.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "The program that runs and inspects models.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libopkit3)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${PROJECT_BINARY_DIR}/deb/triggers")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libopkit-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libopkit3 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME opkit)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION science)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libopkit3 (= ${PROJECT_VERSION})")
file(WRITE ${PROJECT_BINARY_DIR}/deb/triggers "activate-noawait ldconfig\n")

# What the binaries need is read from the binaries, where the machine can do that.
find_program(OPKIT_SHLIBDEPS dpkg-shlibdeps)
find_program(OPKIT_FILE file)
mark_as_advanced(OPKIT_SHLIBDEPS OPKIT_FILE)
if(OPKIT_SHLIBDEPS AND OPKIT_FILE)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS libc6)
endif()
include(CPack)
