# Where the installed files go, relative to the install prefix, as systemd and D-Bus look
# for them. Each program is one install component and one Debian package:
#   service -> recording-search, store -> recording-store, client -> recsearch,
#   web -> recording-search-web.
include(GNUInstallDirs)
set(RS_UNIT_DIR lib/systemd/system)
set(RS_SYSUSERS_DIR lib/sysusers.d)
set(RS_TMPFILES_DIR lib/tmpfiles.d)
set(RS_DBUS_DIR ${CMAKE_INSTALL_DATAROOTDIR}/dbus-1)

# Installs FILE into DESTINATION with @libexecdir@, @bindir@ and @datadir@ replaced by the
# prefix given at install time (`cmake --install --prefix`, or the packages' /usr), not the
# one the build was configured with.
function(rs_install_configured file destination component)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/installed/${file})
  install(CODE "
    set(libexecdir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}\")
    set(bindir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(datadir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATAROOTDIR}\")
    configure_file(\"${CMAKE_CURRENT_SOURCE_DIR}/${file}\" \"${out}\" @ONLY)
    file(INSTALL \"${out}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\")"
    COMPONENT ${component})
endfunction()

# The system bus starts UNIT when a client calls BUSNAME before it is there.
function(rs_install_bus_activation busname user unit component)
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${busname}.service)
  file(WRITE ${file} "[D-BUS Service]\nName=${busname}\nExec=/bin/false\nUser=${user}\n"
                     "SystemdService=${unit}\n")
  install(FILES ${file} DESTINATION ${RS_DBUS_DIR}/system-services COMPONENT ${component})
endfunction()
