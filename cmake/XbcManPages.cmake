# Manual pages of the programs, made from their --help by help2man when the
# programs are built (a cross build runs them under its emulator), compressed
# and installed with the tools. docs/man/PROGRAM.h2m adds what --help lacks.
find_program(XBC_HELP2MAN help2man)
if(NOT XBC_HELP2MAN)
  message(STATUS "help2man not found: no manual pages (scripts/install-deps.sh installs it)")
  return()
endif()
if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(STATUS "Cross build without an emulator: the programs cannot print their --help here, "
    "so no manual pages")
  return()
endif()
find_program(XBC_GZIP gzip REQUIRED)
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " xbc_man_emulator)

set(XBC_MAN_NAME_xbc-host "HMI runtime stand-in that loads the ls_xbc_cpu_direct driver and polls a PLC")
set(XBC_MAN_NAME_xbc-plc-sim "PLC simulator answering the ls_xbc_cpu_direct protocol")
set(XBC_MAN_NAME_xbc-tap "line tap between a runtime and a PLC that captures the ls_xbc_cpu_direct traffic")
set(xbc_man_pages "")
foreach(program xbc-host xbc-plc-sim xbc-tap)
  if(NOT TARGET ${program})
    continue()
  endif()
  # help2man names the page after the file it runs: a script of the
  # program's own name that runs the program (under the emulator if need be).
  set(runner "${PROJECT_BINARY_DIR}/man/run/${program}")
  file(GENERATE OUTPUT "${runner}"
    CONTENT "#!/bin/sh\nexec ${xbc_man_emulator} \"$<TARGET_FILE:${program}>\" \"$@\"\n")
  set(page "${PROJECT_BINARY_DIR}/man/${program}.1")
  set(include_file "${PROJECT_SOURCE_DIR}/docs/man/${program}.h2m")
  set(include_args "")
  if(EXISTS "${include_file}")
    set(include_args --include "${include_file}")
  else()
    set(include_file "")
  endif()
  add_custom_command(OUTPUT "${page}.gz"
    COMMAND chmod +x "${runner}"
    COMMAND "${XBC_HELP2MAN}" --no-info --section 1 --version-string "${PROJECT_VERSION}"
            --name "${XBC_MAN_NAME_${program}}" ${include_args} --output "${page}" "${runner}"
    COMMAND "${XBC_GZIP}" -9nf "${page}"
    DEPENDS ${program} "${runner}" ${include_file}
    COMMENT "Manual page ${program}(1) from its --help"
    VERBATIM)
  list(APPEND xbc_man_pages "${page}.gz")
  install(FILES "${page}.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
endforeach()
add_custom_target(xbc_man_pages ALL DEPENDS ${xbc_man_pages})
