# What `cmake --install` puts where, in four components, which are also the Debian packages:
#
#   runtime  the two shared libraries
#   dev      headers, CMake package, pkg-config files, manual pages of the file formats
#   tools    the programs, their manual pages and their units for systemd
#   doc      the documentation and the examples
#
# Headers are below include/tarnregfile, where both of their roots are: TarnRegFile/ and platform/.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TARN_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/tarnregfile)
set(TARN_INSTALL_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/TarnRegFile)

# --- The libraries

target_include_directories(TarnPlatform PUBLIC $<INSTALL_INTERFACE:${TARN_INSTALL_HEADERS}>)
install(TARGETS TarnPlatform TarnRegFile EXPORT TarnRegFileTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT dev)

# --- What programs are built with

install(DIRECTORY ${PROJECT_SOURCE_DIR}/TarnRegFile ${PROJECT_SOURCE_DIR}/platform
  DESTINATION ${TARN_INSTALL_HEADERS} COMPONENT dev
  FILES_MATCHING PATTERN "*.h" PATTERN private EXCLUDE)
install(EXPORT TarnRegFileTargets NAMESPACE TarnRegFile:: DESTINATION ${TARN_INSTALL_PACKAGE}
  COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TarnRegFileConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarnRegFileConfig.cmake INSTALL_DESTINATION ${TARN_INSTALL_PACKAGE})
# Until 1.0, what a minor version changes may break.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnRegFileConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/TarnRegFileConfig.cmake
  ${PROJECT_BINARY_DIR}/TarnRegFileConfigVersion.cmake
  DESTINATION ${TARN_INSTALL_PACKAGE} COMPONENT dev)

# pkg-config files name the prefix by where they are, so that a tree may be moved.
file(RELATIVE_PATH TARN_PREFIX_FROM_PC
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
foreach(package tarnplatform tarnregfile)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in
    ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

# --- The programs

if(TARN_BUILD_PROGRAMS)
  install(TARGETS tarnreg tarnsim nimbod nimboctl tarn-shadowd
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/tarnreg/completion/tarnreg.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tarnreg
    COMPONENT tools)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/tarnreg/completion/_tarnreg
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
  # bash looks for a file of the program's name, zsh in all of them for what they are for.
  foreach(program nimbod nimboctl tarn-shadowd tarnsim)
    install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/programs.bash
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program}
      COMPONENT tools)
  endforeach()
  install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/_nimbod
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
  # The units name the programs by their full paths, which only the installation knows.
  file(RELATIVE_PATH bindir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_BINDIR})
  foreach(unit nimbo/nimbod.service nimbo/nimbod.socket agent/tarn-shadowd.service)
    get_filename_component(name ${unit} NAME)
    install(CODE "
      file(READ \"${PROJECT_SOURCE_DIR}/${unit}\" text)
      string(REPLACE /usr/bin/ \"\${CMAKE_INSTALL_PREFIX}/${bindir}/\" text \"\${text}\")
      file(WRITE \"${PROJECT_BINARY_DIR}/units/${name}\" \"\${text}\")"
      COMPONENT tools)
    install(FILES ${PROJECT_BINARY_DIR}/units/${name}
      DESTINATION lib/systemd/system COMPONENT tools)
  endforeach()
endif()

# --- What there is to read

install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc
  FILES_MATCHING PATTERN "*.md" PATTERN "*.schema.json" PATTERN man EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/ARCHITECTURE.md
  ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc
  FILES_MATCHING PATTERN "*.cpp" PATTERN "*.csv" PATTERN "*.toml")
