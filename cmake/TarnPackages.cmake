# Debian packages, one for each component of the installation: `make debian`.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarnregfile)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The libTarnRegFile maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tools doc)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarnregfile0)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Libraries.
A caller names a register as it stands in the device's register list and reads
or writes it, over PCI, SPI, I2C or SMBus.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# Runs ldconfig when the package comes and goes.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarnregfile-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "Headers.
Headers, and what CMake and pkg-config find them by.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libtarnregfile0 (= ${PROJECT_VERSION}), libfmt-dev")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tarnregfile-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Programs.
The command tarnreg, the SMBus proxy daemon, the shadow agent, and tarnsim,
which runs any program on a simulated board.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtarnregfile0 (= ${PROJECT_VERSION})")
# The libraries that the programs are linked with are in a package that is being made as well.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_DOC_PACKAGE_NAME tarnregfile-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_DESCRIPTION "Documentation.
Guides, references and examples.")

# Each package says under what terms it may be used.
foreach(component RUNTIME DEV TOOLS DOC)
  string(TOLOWER ${component} lower)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME}
    RENAME copyright COMPONENT ${lower})
endforeach()
include(CPack)
