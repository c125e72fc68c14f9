# Installation and the Debian packages, built with `cpack -G DEB` in the
# build folder (scripts/package.sh):
#   ndpx-agent     the host, the module and its backends, the operator tools,
#                  the systemd unit, the man pages and the docs;
#   ndpx-devcloud  the development control plane, apart so that no production
#                  machine carries it.
# The host framework and platform libraries are private to each package
# (/usr/lib/ndpx, found through the binaries' run path); dependencies on
# system libraries come from dpkg-shlibdeps.
include(GNUInstallDirs)

set(NDPX_PRIVATE_DIR lib/ndpx)

set(agent_private agenthost ndpx_mqtt ndpx_http ndpx_zones mfw ndpx_platform)
set(agent_tools regctl certctl agentctl ipcctl)
set_target_properties(${agent_private} PROPERTIES INSTALL_RPATH "/usr/${NDPX_PRIVATE_DIR}")
set_target_properties(${agent_tools} PROPERTIES INSTALL_RPATH "/usr/${NDPX_PRIVATE_DIR}")
install(TARGETS ${agent_private}
  RUNTIME DESTINATION ${NDPX_PRIVATE_DIR} COMPONENT agent
  LIBRARY DESTINATION ${NDPX_PRIVATE_DIR} COMPONENT agent
  NAMELINK_SKIP)
install(TARGETS ${agent_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT agent)
# Debian 12 keeps units of packages in /lib.
install(FILES host/agenthost.service DESTINATION /lib/systemd/system COMPONENT agent)
install(FILES README.md docs/architecture.md docs/delivery.md docs/diagrams.md docs/healing.md
              docs/ipc.md docs/ipc-client.md docs/operator-guide.md docs/renewal.md
              docs/templates.md
  DESTINATION share/doc/ndpx-agent COMPONENT agent)

# devcloud uses the agent's copy of the two libraries: a development machine
# has the agent too, a production machine never needs devcloud.
set_target_properties(devcloud PROPERTIES INSTALL_RPATH "/usr/${NDPX_PRIVATE_DIR}")
install(TARGETS devcloud RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devcloud)

# Man pages from each program's own --help, so that they never disagree.
find_program(HELP2MAN help2man)
function(ndpx_man_page program section component what)
  set(man_dir ${CMAKE_BINARY_DIR}/man)
  set(page ${man_dir}/${program}.${section}.gz)
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${man_dir}
    COMMAND ${HELP2MAN} --no-info --no-discard-stderr --section=${section}
            --version-string=${PROJECT_VERSION} --name=${what}
            --output=${man_dir}/${program}.${section} $<TARGET_FILE:${program}>
    COMMAND gzip -9nf ${man_dir}/${program}.${section}
    DEPENDS ${program}
    COMMENT "man page of ${program}"
    VERBATIM)
  add_custom_target(man_${program} ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()
if(HELP2MAN AND NOT NDPX_SANITIZE)
  ndpx_man_page(agenthost 8 agent "agent host, which loads the agent's plug-in modules")
  ndpx_man_page(regctl 8 agent "read and write the agent's settings store")
  ndpx_man_page(certctl 8 agent "list and manage the agent's certificate store")
  ndpx_man_page(agentctl 8 agent "ask a running agent host for its status")
  ndpx_man_page(ipcctl 1 agent "publish and subscribe through the agent's local IPC bridge")
  ndpx_man_page(devcloud 1 devcloud
                "development control plane: CA, broker and credential service")
endif()

# Debian's changelog and copyright, which every package carries.
foreach(component agent devcloud)
  install(FILES packaging/copyright DESTINATION share/doc/ndpx-${component} COMPONENT ${component})
  install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
    DESTINATION share/doc/ndpx-${component} COMPONENT ${component})
endforeach()
configure_file(packaging/changelog.Debian.in ${CMAKE_BINARY_DIR}/packaging/changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/packaging/changelog.Debian)

set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL agent devcloud)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ndpx maintainers <ndpx-maintainers@example.org>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# One source for both, whose private folder /usr/lib/ndpx the binaries' run
# path may name.
set(CPACK_DEBIAN_PACKAGE_SOURCE ndpx)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
set(CPACK_DEBIAN_AGENT_PACKAGE_NAME ndpx-agent)
set(CPACK_DEBIAN_AGENT_DESCRIPTION
  "desktop agent's message transport to its control plane
The agent host and its MQTT module: pairs a freshly provisioned desktop with
the credential service, keeps an MQTT 5 session over mutual TLS, carries
commands and their answers, reports, events and certificate renewals, and
bridges include-listed local processes. Runs as the systemd service
agenthost.")
# The private libraries, where dpkg-shlibdeps finds them to leave them out.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${CMAKE_BINARY_DIR}/mfw ${CMAKE_BINARY_DIR}/platform)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/agent/postinst
  ${PROJECT_SOURCE_DIR}/packaging/agent/prerm
  ${PROJECT_SOURCE_DIR}/packaging/agent/postrm)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DEVCLOUD_PACKAGE_NAME ndpx-devcloud)
set(CPACK_DEBIAN_DEVCLOUD_PACKAGE_DEPENDS "ndpx-agent (= ${PROJECT_VERSION}-1), mosquitto")
set(CPACK_DEBIAN_DEVCLOUD_DESCRIPTION
  "development control plane for the desktop agent
A certificate authority, an MQTT broker set up for mutual TLS, the
credential service that pairs desktops, and a control-plane client that
sends commands: what the agent needs to run end to end on one machine.
Not for production machines.")
set(CPACK_DEBIAN_DEVCLOUD_PACKAGE_SECTION devel)
include(CPack)
