# cmake --install: the agent, tervainctl with its man page and completions, the systemd user unit
# (Linux), and the client library with its headers and a package config, so that another project
# can find_package(Tervain) and link Tervain::tervain_client.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
get_filename_component(TERVAIN_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)

install(TARGETS TervainVMAgent tervainctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The client's headers keep their folders, so "client/tervain_client.h" includes as in this tree.
set(TERVAIN_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/tervain)
install(FILES ${TERVAIN_ROOT}/src/client/tervain_client.h DESTINATION ${TERVAIN_INCLUDE_DIR}/client)
install(FILES ${TERVAIN_ROOT}/src/core/json.h ${TERVAIN_ROOT}/src/core/line_split_buffer.h
        ${TERVAIN_ROOT}/src/core/unique_fd.h ${TERVAIN_ROOT}/src/core/errno_or.h
        DESTINATION ${TERVAIN_INCLUDE_DIR}/core)

# The source folder is an include directory for builds here only.
# The client links the wire library only, so the two of them are all another project gets.
foreach(target tervain_wire tervain_client)
  set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES
                        "$<BUILD_INTERFACE:${TERVAIN_ROOT}/src>")
endforeach()
set(TERVAIN_EXPORTED tervain_client tervain_wire)
install(TARGETS ${TERVAIN_EXPORTED} EXPORT TervainTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${TERVAIN_INCLUDE_DIR})
set(TERVAIN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tervain)
install(EXPORT TervainTargets NAMESPACE Tervain:: DESTINATION ${TERVAIN_CMAKE_DIR})
configure_package_config_file(${TERVAIN_ROOT}/cmake/TervainConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/TervainConfig.cmake
                              INSTALL_DESTINATION ${TERVAIN_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TervainConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TervainConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/TervainConfigVersion.cmake
        DESTINATION ${TERVAIN_CMAKE_DIR})

install(FILES ${TERVAIN_ROOT}/packaging/linux/tervainctl.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${TERVAIN_ROOT}/packaging/linux/tervainctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tervainctl)
install(FILES ${TERVAIN_ROOT}/packaging/linux/_tervainctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(NOT APPLE)
  # The unit names the agent where it is installed, so it is written at install time, when
  # --prefix is known.
  set(unit ${CMAKE_CURRENT_BINARY_DIR}/install-unit/tervain-vmagent.service)
  install(CODE "
    set(TERVAIN_AGENT_BINARY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/TervainVMAgent\")
    configure_file(\"${TERVAIN_ROOT}/packaging/linux/tervain-vmagent.service.in\" \"${unit}\" @ONLY)")
  install(FILES ${unit} DESTINATION ${CMAKE_INSTALL_DATADIR}/systemd/user)
endif()

# The installed tree, checked from a scratch project (tests/install/check.sh). Packaging does not
# change with sanitizers, so only the plain build checks it.
if(TERVAIN_BUILD_TESTS AND NOT TERVAIN_SANITIZE)
  add_test(NAME install_find_package
           COMMAND bash ${TERVAIN_ROOT}/tests/install/check.sh ${CMAKE_BINARY_DIR}
                   ${TERVAIN_ROOT}/tests/install "${TERVAIN_SANITIZE}")
endif()
