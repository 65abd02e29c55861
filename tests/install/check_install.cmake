# cmake -DBUILD_DIR=<build> -DSTAGE=<folder> -DICON_SIZES=<list> -P check_install.cmake
file(REMOVE_RECURSE ${STAGE})
set(ENV{DESTDIR} ${STAGE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix /usr
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 100)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${rc}):\n${out}\n${err}")
endif()

set(expected
  usr/bin/quillbox
  usr/bin/quillbox-simdev
  usr/bin/quillbox-probe
  usr/lib/quillbox/libquillbox-ui.so
  usr/share/Quillbox/German.lng
  usr/lib/udev/rules.d/70-quillbox.rules
  usr/lib/systemd/user/quillbox-device-connected@.service
  usr/lib/quillbox/quillbox-device-connected
  etc/quillbox/machine.reg
  usr/share/applications/quillbox.desktop
  usr/share/icons/hicolor/scalable/apps/quillbox.svg
  usr/share/man/man1/quillbox.1.gz
  usr/share/doc/quillbox/README.md)
foreach(size ${ICON_SIZES})
  list(APPEND expected usr/share/icons/hicolor/${size}x${size}/apps/quillbox.png)
endforeach()
set(missing "")
foreach(f ${expected})
  if(NOT EXISTS ${STAGE}/${f})
    list(APPEND missing ${f})
  endif()
endforeach()
if(missing)
  message(FATAL_ERROR "not installed: ${missing}")
endif()

# Programs and the launch script are executable.
foreach(f usr/bin/quillbox usr/lib/quillbox/quillbox-device-connected)
  execute_process(COMMAND test -x ${STAGE}/${f} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${f} is not executable")
  endif()
endforeach()

# The program finds its desktop module where it was installed (it looks in
# ../lib/quillbox from its own folder), and needs no toolkit itself.
execute_process(COMMAND readelf -d ${STAGE}/usr/bin/quillbox OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR dynamic MATCHES "libQt6")
  message(FATAL_ERROR "the installed program needs the toolkit itself:\n${dynamic}")
endif()
execute_process(COMMAND readelf -d --dyn-syms ${STAGE}/usr/lib/quillbox/libquillbox-ui.so
                OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT dynamic MATCHES "libQt6Widgets" OR NOT dynamic MATCHES "quillbox_ui_toolkit")
  message(FATAL_ERROR "the installed desktop module is not the toolkit's:\n${dynamic}")
endif()

# The desktop entry starts the installed program with the installed icon,
# and the unit starts the installed launch script.
file(READ ${STAGE}/usr/share/applications/quillbox.desktop desktop)
foreach(line "Exec=quillbox" "Icon=quillbox" "Type=Application")
  string(FIND "${desktop}" "${line}" at)
  if(at LESS 0)
    message(FATAL_ERROR "quillbox.desktop lacks ${line}")
  endif()
endforeach()
file(READ ${STAGE}/usr/lib/systemd/user/quillbox-device-connected@.service unit)
string(FIND "${unit}" "ExecStart=/usr/lib/quillbox/quillbox-device-connected" at)
if(at LESS 0)
  message(FATAL_ERROR "the unit does not start the installed launch script")
endif()
# The machine defaults name the folder that holds the program.
file(READ ${STAGE}/etc/quillbox/machine.reg machine)
string(FIND "${machine}" "@=\"/usr/bin\"" at)
if(at LESS 0)
  message(FATAL_ERROR "machine.reg does not name /usr/bin as the install folder")
endif()
# Each rendered icon has the size its folder names (PNG width and height at
# bytes 16..23 of the header).
foreach(size ${ICON_SIZES})
  file(READ ${STAGE}/usr/share/icons/hicolor/${size}x${size}/apps/quillbox.png head LIMIT 24 HEX)
  string(SUBSTRING "${head}" 32 8 w)
  math(EXPR got "0x${w}")
  if(NOT got EQUAL size)
    message(FATAL_ERROR "icon ${size}x${size} is ${got} pixels wide")
  endif()
endforeach()
# The man page reads.
execute_process(COMMAND sh -c "gzip -dc '${STAGE}/usr/share/man/man1/quillbox.1.gz' | grep -q 'EXIT STATUS'"
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the man page has no EXIT STATUS section")
endif()
message(STATUS "install layout complete: ${STAGE}")
