# Two Debian packages: `mirado` with the programs and libraries, and `mirado-dev` for building a plug-in for a set.
# Their dependencies are computed from the programs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mirado)
set(CPACK_PACKAGE_CONTACT "The Mirado developers <developers@mirado.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/${MIRADO_LIBDIR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME mirado)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS liblmdb0) # converts a store of the version before
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Develop television pages against the real menu settings plug-in
A browser plug-in that gives a page the menu settings of a television, and a
simulated set to run it on: a settings store that processes share, and a desk
with a page of its own that shows and changes the set.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME mirado-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers and libraries to build the menu settings plug-in with
The services of a simulated television set that the plug-in calls: headers,
libraries to link and a configuration for CMake.")

# Required by Debian: the licence and the changelog.
foreach(component_and_package runtime:mirado development:mirado-dev)
  string(REPLACE ":" ";" pair ${component_and_package})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
          COMPONENT ${component})
  mirado_install_compressed(changelog ${CMAKE_INSTALL_DATADIR}/doc/${package} ${component}
                            cat ${PROJECT_SOURCE_DIR}/cmake/debian/changelog)
endforeach()

include(CMakePackageConfigHelpers)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/MiradoSetConfig.cmake.in ${CMAKE_BINARY_DIR}/MiradoSetConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/MiradoSet PATH_VARS MIRADO_SETDIR)
install(FILES ${CMAKE_BINARY_DIR}/MiradoSetConfig.cmake ${PROJECT_SOURCE_DIR}/pepper/set.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/MiradoSet COMPONENT development)

include(CPack)
