# What `cmake --install` puts on a machine: the three programs, the shared libraries they load,
# the service's system files, the shell completions and the README. Test tools, benchmarks and
# cabin-buffer-fetch stay in the build tree.
include(GNUInstallDirs)

set(CABIN_PROGRAMS cabin-media-server cabin-mediactl cabin-play)
set(CABIN_LIBRARIES cabin_utils platform_log platform_config platform_core platform_datavalue platform_io
    platform_net platform_service vehicle ui_media_server media_server mpris)
# The libraries are the programs' own, not an API for others: a private folder keeps them out of
# the dynamic linker's search and lets them carry no version.
set(CABIN_LIBRARY_DIR ${CMAKE_INSTALL_LIBDIR}/cabin-media-server)

# RPATHs relative to the file itself, so the installed tree runs from whatever prefix it was
# put in (or moved to) without LD_LIBRARY_PATH.
file(RELATIVE_PATH libraryDirFromPrograms /${CMAKE_INSTALL_BINDIR} /${CABIN_LIBRARY_DIR})
set_target_properties(${CABIN_PROGRAMS} PROPERTIES INSTALL_RPATH "$ORIGIN/${libraryDirFromPrograms}")
set_target_properties(${CABIN_LIBRARIES} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${CABIN_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS ${CABIN_LIBRARIES} LIBRARY DESTINATION ${CABIN_LIBRARY_DIR})

# systemd looks in lib/ under the prefix whatever the platform's library folder is called.
# The unit names the program, the README and the settings file by their paths under the prefix,
# which is only known at install time (`cmake --install --prefix`): it is written then.
install(CODE "set(CABIN_SOURCE_DIR \"${CMAKE_SOURCE_DIR}\")
  set(CABIN_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
  set(CABIN_DATADIR \"${CMAKE_INSTALL_DATADIR}\")")
install(SCRIPT cmake/InstallSystemFiles.cmake)
install(FILES data/systemd/cabin-media-server.sysusers.conf DESTINATION lib/sysusers.d RENAME cabin-media-server.conf)
install(FILES data/dbus/com.kelvramotors.MediaServer2.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
install(FILES data/bash-completion/cabin-media-server data/bash-completion/cabin-mediactl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/cabin-media-server)
