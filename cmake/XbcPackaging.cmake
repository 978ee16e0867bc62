# Debian packages (cpack -G DEB), one per install component:
#   ls-xbc-cpu-direct-qtN        the driver
#   ls-xbc-cpu-direct-qtN-dev    header, CMake package, pkg-config file
#   ls-xbc-cpu-direct-qtN-tools  xbc-host, xbc-plc-sim and xbc-tap, with manual pages
# N is the Qt major the driver was built with: a runtime needs the package of
# its own Qt. The Qt 5 and Qt 6 packages install the same files, so they
# conflict with each other.
set(XBC_DEB_NAME "ls-xbc-cpu-direct-qt${XBC_QT_MAJOR}")
# Dependencies stated for cross builds: what dpkg-shlibdeps computes for a
# native Debian 12 build. Add a package here when the code links a new library.
set(XBC_DEB_DEPENDS_BASE "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
# --capture and --http of xbc-host.
set(XBC_DEB_DEPENDS_TOOL_LIBS "libpcap0.8 (>= 0.9.8), libcpp-httplib0.11 (>= 0.11.4+ds)")
if(XBC_QT_MAJOR STREQUAL "5")
  set(XBC_DEB_OTHER_NAME "ls-xbc-cpu-direct-qt6")
  set(XBC_QT_DEV_PACKAGE "qtbase5-dev (>= 5.15)")
  set(XBC_DEB_DEPENDS_DRIVER "${XBC_DEB_DEPENDS_BASE}, libqt5core5a (>= 5.15.1)")
  set(XBC_DEB_DEPENDS_TOOLS "${XBC_DEB_DEPENDS_DRIVER}, libqt5network5 (>= 5.15.1), libqt5serialport5 (>= 5.6.0), ${XBC_DEB_DEPENDS_TOOL_LIBS}")
else()
  set(XBC_DEB_OTHER_NAME "ls-xbc-cpu-direct-qt5")
  set(XBC_QT_DEV_PACKAGE "qt6-base-dev (>= 6.2)")
  set(XBC_DEB_DEPENDS_DRIVER "${XBC_DEB_DEPENDS_BASE}, libqt6core6 (>= 6.4)")
  set(XBC_DEB_DEPENDS_TOOLS "${XBC_DEB_DEPENDS_DRIVER}, libqt6network6 (>= 6.4), libqt6serialport6 (>= 6.4), ${XBC_DEB_DEPENDS_TOOL_LIBS}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME "${XBC_DEB_NAME}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "ls_xbc_cpu_direct developers <dev@example.invalid>")
set(CPACK_PACKAGE_VENDOR "ls_xbc_cpu_direct developers")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL driver dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Inter-package dependencies with the exact version, from the component graph.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS driver)
set(CPACK_COMPONENT_TOOLS_DEPENDS driver)

set(CPACK_DEBIAN_DRIVER_PACKAGE_NAME "${XBC_DEB_NAME}")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME "${XBC_DEB_NAME}-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME "${XBC_DEB_NAME}-tools")
set(CPACK_DEBIAN_DRIVER_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_DRIVER_PACKAGE_CONFLICTS "${XBC_DEB_OTHER_NAME}")
set(CPACK_DEBIAN_DEV_PACKAGE_CONFLICTS "${XBC_DEB_OTHER_NAME}-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONFLICTS "${XBC_DEB_OTHER_NAME}-tools")

set(CPACK_COMPONENT_DRIVER_DESCRIPTION
"PLC communication driver for HMI runtimes built with Qt ${XBC_QT_MAJOR}
The driver speaks the ls_xbc_cpu_direct character protocol to an XBC CPU
over a serial line or TCP. An HMI runtime built with Qt ${XBC_QT_MAJOR} loads
it from its driver directory by its file name.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"PLC communication driver for Qt ${XBC_QT_MAJOR} HMI runtimes - development files
The header with the records and functions a runtime uses, a CMake package
(find_package(ls_xbc_cpu_direct)) and a pkg-config file, for building a
runtime or a test against the driver.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"PLC communication driver for Qt ${XBC_QT_MAJOR} HMI runtimes - tools
xbc-host plays the HMI runtime: it loads the installed driver and polls a
PLC over TCP or a serial line, printing every value change. xbc-plc-sim is
a PLC simulator that answers on loopback TCP or a pseudo-terminal. xbc-tap
sits between a runtime and a PLC and captures their exchange for Wireshark.")

# The header needs Qt Core's headers; the CMake package finds them.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${XBC_QT_DEV_PACKAGE}")

# Shared-library dependencies: computed by dpkg-shlibdeps on a native build;
# a cross build has no package database of its architecture to ask, so there
# they are stated (the same packages, as a native build computes them).
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${XBC_DEB_ARCH}")
  set(CPACK_DEBIAN_DRIVER_PACKAGE_DEPENDS "${XBC_DEB_DEPENDS_DRIVER}")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${XBC_DEB_DEPENDS_TOOLS}")
else()
  set(CPACK_DEBIAN_DRIVER_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
endif()

# Every package carries its copyright and changelog, as Debian policy asks.
find_program(XBC_GZIP gzip REQUIRED)
set(XBC_DEB_DOCS "${PROJECT_BINARY_DIR}/deb-docs")
file(MAKE_DIRECTORY "${XBC_DEB_DOCS}")
configure_file(cmake/debian/changelog.in "${XBC_DEB_DOCS}/changelog" @ONLY)
execute_process(COMMAND "${XBC_GZIP}" -9nf "${XBC_DEB_DOCS}/changelog" COMMAND_ERROR_IS_FATAL ANY)
foreach(component driver dev tools)
  string(TOUPPER ${component} upper)
  set(docdir "${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  install(FILES cmake/debian/copyright "${XBC_DEB_DOCS}/changelog.gz"
    DESTINATION "${docdir}" COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
