# What is installed beside the programs. Paths are relative to the prefix, which is /usr in the
# packages; the unit names its programs there.
install(PROGRAMS packaging/pelorus-export-settings DESTINATION lib/pelorus)
install(FILES packaging/pelorus.service DESTINATION lib/systemd/system)
install(FILES packaging/pelorus.sysusers DESTINATION lib/sysusers.d RENAME pelorus.conf)
install(FILES packaging/settings.example.json DESTINATION share/doc/pelorus/examples)
install(FILES packaging/write_skein.conf DESTINATION share/doc/collectd-plugin-pelorus/examples)
install(DIRECTORY packaging/grafana DESTINATION share/doc/pelorus/examples)
install(DIRECTORY doc/ DESTINATION share/doc/pelorus FILES_MATCHING PATTERN "*.md")
install(FILES packaging/completions/pelorusctl.bash
        DESTINATION share/bash-completion/completions RENAME pelorusctl)
install(FILES packaging/completions/pelorusctl.zsh
        DESTINATION share/zsh/vendor-completions RENAME _pelorusctl)

# Manual pages, out of doc/.
find_program(LOWDOWN lowdown)
if(LOWDOWN)
  set(manual ${PROJECT_BINARY_DIR}/share/man)
  file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/doc/*.md)
  add_custom_command(OUTPUT ${manual}.made
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/manual ${manual}
    COMMAND ${CMAKE_COMMAND} -E touch ${manual}.made
    DEPENDS ${PROJECT_SOURCE_DIR}/scripts/manual ${pages}
    VERBATIM)
  add_custom_target(manual ALL DEPENDS ${manual}.made)
  install(DIRECTORY ${manual}/ DESTINATION share/man)
else()
  message(WARNING "Without lowdown no manual pages are made")
endif()
