# `cmake --build BUILD --target reference`: the HTML reference of the public
# header, with docs/integration.md as its main page, in BUILD/reference/html.
# Any doxygen warning (an undocumented name or argument) fails the target.
find_program(XBC_DOXYGEN doxygen)
if(XBC_DOXYGEN)
  add_custom_target(reference
    COMMAND ${CMAKE_COMMAND} -E make_directory "${PROJECT_BINARY_DIR}/reference"
    COMMAND ${CMAKE_COMMAND} -E env "XBC_REFERENCE_DIR=${PROJECT_BINARY_DIR}/reference"
            "${XBC_DOXYGEN}" docs/Doxyfile
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    COMMENT "Reference: ${PROJECT_BINARY_DIR}/reference/html/index.html"
    VERBATIM)
else()
  add_custom_target(reference
    COMMAND ${CMAKE_COMMAND} -E echo "doxygen not found: install it (scripts/install-deps.sh) for the reference"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
endif()
