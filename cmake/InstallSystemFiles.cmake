# Run by `cmake --install`: writes the unit and, unless one is there already, the settings file
# it names. Both depend on the prefix, which is only known now (`cmake --install --prefix`).
# Expects CABIN_SOURCE_DIR, CABIN_BINDIR and CABIN_DATADIR (relative to the prefix).

# systemd's ConfigurationDirectory= is /etc/cabin-media-server; an installation under another
# prefix keeps its settings under that prefix and the unit names the file there.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(settings "/etc/cabin-media-server/media.conf")
else()
  set(settings "${CMAKE_INSTALL_PREFIX}/etc/cabin-media-server/media.conf")
endif()

file(READ "${CABIN_SOURCE_DIR}/data/systemd/cabin-media-server.service" unit)
string(REPLACE "/usr/bin/" "${CMAKE_INSTALL_PREFIX}/${CABIN_BINDIR}/" unit "${unit}")
string(REPLACE "/usr/share/doc/" "${CMAKE_INSTALL_PREFIX}/${CABIN_DATADIR}/doc/" unit "${unit}")
string(REPLACE [=[${CONFIGURATION_DIRECTORY}/media.conf]=] "${settings}" unit "${unit}")
set(target "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/systemd/system/cabin-media-server.service")
message(STATUS "Installing: ${target}")
file(WRITE "${target}" "${unit}")   # makes the folders it needs

# An administrator's settings are never overwritten; a missing file would stop the server,
# which treats a file named on its command line as a promise.
if(NOT EXISTS "$ENV{DESTDIR}${settings}")
  message(STATUS "Installing: $ENV{DESTDIR}${settings}")
  get_filename_component(folder "$ENV{DESTDIR}${settings}" DIRECTORY)
  file(MAKE_DIRECTORY "${folder}")
  file(COPY_FILE "${CABIN_SOURCE_DIR}/data/systemd/media.conf" "$ENV{DESTDIR}${settings}")
else()
  message(STATUS "Keeping: $ENV{DESTDIR}${settings}")
endif()
