# What is installed beside the programs. Where the service manager, collectd and zsh look is theirs to
# say, and the same below every prefix that they know (/usr, /usr/local).
set(UNIT_DIR lib/systemd/system)
set(SYSUSERS_DIR lib/sysusers.d)
set(ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)  # Debian's, for packages
endif()
set(DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/pelorus)

# The units name the programs where they are installed. Settings and state stay where the programs
# themselves look for them, whatever the prefix.
foreach(unit pelorus.service pelorus.path)
  configure_file(packaging/${unit}.in ${PROJECT_BINARY_DIR}/packaging/${unit} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/${unit} DESTINATION ${UNIT_DIR})
endforeach()
install(PROGRAMS packaging/pelorus-export-settings DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/pelorus)
install(FILES packaging/pelorus.sysusers DESTINATION ${SYSUSERS_DIR} RENAME pelorus.conf)
install(FILES CHANGELOG.md DESTINATION ${DOC_DIR})
install(FILES packaging/settings.example.json DESTINATION ${DOC_DIR}/examples)
install(FILES packaging/write_skein.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/collectd-plugin-pelorus/examples)
install(DIRECTORY packaging/collectd packaging/grafana packaging/prometheus
        DESTINATION ${DOC_DIR}/examples)
install(DIRECTORY doc/ DESTINATION ${DOC_DIR} FILES_MATCHING PATTERN "*.md")
install(FILES packaging/completions/pelorusctl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME pelorusctl)
install(FILES packaging/completions/pelorusctl.zsh DESTINATION ${ZSH_DIR} RENAME _pelorusctl)

# Manual pages, out of doc/, with the folders of this prefix.
find_program(LOWDOWN lowdown)
if(LOWDOWN)
  set(manual ${PROJECT_BINARY_DIR}/share/man)
  file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/doc/*.md)
  add_custom_command(OUTPUT ${manual}.made
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/manual ${manual} ${CMAKE_INSTALL_FULL_DATADIR}
    COMMAND ${CMAKE_COMMAND} -E touch ${manual}.made
    DEPENDS ${PROJECT_SOURCE_DIR}/scripts/manual ${pages}
    VERBATIM)
  add_custom_target(manual ALL DEPENDS ${manual}.made)
  install(DIRECTORY ${manual}/ DESTINATION ${CMAKE_INSTALL_MANDIR})
elseif(PELORUS_MANUAL)
  message(FATAL_ERROR "lowdown is missing: it makes the manual pages (apt-get install lowdown)")
else()
  message(WARNING "lowdown is missing: no manual pages are made")
endif()
