# Install layout (GNUInstallDirs): the driver in its own directory, loaded by a
# runtime through its exact file name; the header, a CMake package and a
# pkg-config file for those who build a runtime or a test against it; the two
# programs in bin/. Components: driver, dev, tools (one Debian package each).
include(CMakePackageConfigHelpers)

# XBC_DRIVER_DIR and XBC_DRIVER_FILE are set at the top (xbc-host needs them).
option(XBC_INSTALL_STRIP "Strip the installed library and programs" ON)
set(XBC_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/ls_xbc_cpu_direct")

# A runtime loads the file by its name, so name and soname stay unversioned
# (the package version tells builds apart); no RPATH: Qt comes from the system.
set_target_properties(ls_xbc_cpu_direct PROPERTIES EXPORT_NAME driver INSTALL_RPATH "")

# Stripped whatever the build type: the programs and the driver ship as they
# are loaded on a panel (debuggers use the build tree).
if(XBC_INSTALL_STRIP)
  install(CODE "set(CMAKE_INSTALL_DO_STRIP TRUE)" COMPONENT driver)
  install(CODE "set(CMAKE_INSTALL_DO_STRIP TRUE)" COMPONENT tools)
endif()

install(TARGETS ls_xbc_cpu_direct EXPORT ls_xbc_cpu_direct_targets
  LIBRARY DESTINATION "${XBC_DRIVER_DIR}" COMPONENT driver
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES include/ls_xbc_cpu_direct.h
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT dev)

foreach(program xbc-host xbc-plc-sim xbc-tap)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
  endif()
endforeach()
include(cmake/XbcManPages.cmake)

install(EXPORT ls_xbc_cpu_direct_targets NAMESPACE ls_xbc_cpu_direct::
  FILE ls_xbc_cpu_directTargets.cmake DESTINATION "${XBC_CMAKE_DIR}" COMPONENT dev)
configure_package_config_file(cmake/ls_xbc_cpu_directConfig.cmake.in
  "${PROJECT_BINARY_DIR}/ls_xbc_cpu_directConfig.cmake"
  INSTALL_DESTINATION "${XBC_CMAKE_DIR}"
  PATH_VARS XBC_DRIVER_DIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/ls_xbc_cpu_directConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/ls_xbc_cpu_directConfig.cmake"
  "${PROJECT_BINARY_DIR}/ls_xbc_cpu_directConfigVersion.cmake"
  DESTINATION "${XBC_CMAKE_DIR}" COMPONENT dev)

# pkg-config paths are written relative to the file's own place where they can
# be, so the file stays right when the tree is installed under another prefix.
file(RELATIVE_PATH XBC_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
function(xbc_pc_path out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
xbc_pc_path(XBC_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
xbc_pc_path(XBC_PC_DRIVERDIR "${XBC_DRIVER_DIR}")
string(REGEX REPLACE "/$" "" XBC_PC_TO_PREFIX "${XBC_PC_TO_PREFIX}")
set(XBC_PC_QT_CORE "Qt${XBC_QT_MAJOR}Core")
configure_file(cmake/ls_xbc_cpu_direct.pc.in "${PROJECT_BINARY_DIR}/ls_xbc_cpu_direct.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/ls_xbc_cpu_direct.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)
