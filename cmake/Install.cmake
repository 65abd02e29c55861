# Installation: the program, its desktop module and its tools, the language
# files, the udev rule, the systemd user unit and its launch script, the
# desktop entry with the icon in the sizes desktops use, the man page, the
# machine defaults and the documents; and the .deb made from the same rules
# by CPack.
#
# The program looks for language files in /usr/share/Quillbox and for the
# machine hive in /etc/quillbox whatever the prefix, so the prefix defaults
# to /usr (configure with -DCMAKE_INSTALL_PREFIX to choose another).
set(CMAKE_INSTALL_DOCDIR share/doc/quillbox CACHE PATH "Documents" FORCE)
include(GNUInstallDirs)

set(QB_PACKAGING ${CMAKE_SOURCE_DIR}/packaging)

install(TARGETS quillbox RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
foreach(tool quillbox-simdev quillbox-probe)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
  endif()
endforeach()

# The desktop module (the windows, on Qt), which the program loads only when
# it shows a window: found from the program's folder as ../lib/quillbox.
install(TARGETS quillbox-ui LIBRARY DESTINATION ${QUILLBOX_UI_MODULE_DIR} COMPONENT program)

file(GLOB QB_LANGUAGE_FILES ${CMAKE_SOURCE_DIR}/share/lang/*.lng)
install(FILES ${QB_LANGUAGE_FILES} DESTINATION ${CMAKE_INSTALL_DATADIR}/Quillbox COMPONENT program)

install(FILES ${QB_PACKAGING}/udev/70-quillbox.rules DESTINATION lib/udev/rules.d COMPONENT program)
install(FILES ${QB_PACKAGING}/systemd/quillbox-device-connected@.service
        DESTINATION lib/systemd/user COMPONENT program)
install(PROGRAMS ${QB_PACKAGING}/libexec/quillbox-device-connected DESTINATION lib/quillbox COMPONENT program)
# Where the program reads it, whatever the prefix.
install(FILES ${QB_PACKAGING}/machine.reg DESTINATION /etc/quillbox COMPONENT program)

install(FILES ${QB_PACKAGING}/desktop/quillbox.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications
        COMPONENT program)
install(FILES ${CMAKE_SOURCE_DIR}/src/ui/resources/quillbox.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps COMPONENT program)
foreach(size ${QUILLBOX_ICON_SIZES})
  install(FILES ${CMAKE_BINARY_DIR}/icons/hicolor/${size}x${size}/apps/quillbox.png
          DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps COMPONENT program)
endforeach()

# Debian keeps man pages compressed.
set(QB_MAN_GZ ${CMAKE_BINARY_DIR}/man/quillbox.1.gz)
add_custom_command(OUTPUT ${QB_MAN_GZ}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
  COMMAND gzip -9 -n -c ${QB_PACKAGING}/man/quillbox.1 > ${QB_MAN_GZ}
  DEPENDS ${QB_PACKAGING}/man/quillbox.1)
add_custom_target(quillbox-man ALL DEPENDS ${QB_MAN_GZ})
install(FILES ${QB_MAN_GZ} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)

install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/app.md ${CMAKE_SOURCE_DIR}/docs/ui.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT program)

# The .deb: `cpack -G DEB` in the build folder, after the build. Installing
# does not build the tests and benchmarks first.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillbox)
set(CPACK_PACKAGE_VENDOR "Quillbox")
# No mail address of its own: the package names its makers only.
set(CPACK_PACKAGE_CONTACT "Quillbox developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Portable devices (MTP/PTP) as ordinary drives")
set(CPACK_PACKAGE_DESCRIPTION
    "Quillbox makes the storages of a phone, camera or media player appear as an ordinary drive: a FUSE mount that every program can use through normal file calls.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libxcb1: the display check loads it with dlopen (dpkg-shlibdeps does not
# see that).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fuse3, libxcb1")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${QB_PACKAGING}/deb/conffiles)
set(CPACK_STRIP_FILES ON)
include(CPack)
