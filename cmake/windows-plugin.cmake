# Windows side of the build, second half: read at the end of the top-level
# CMakeLists.txt, when the plug-in target and the engine library stand.

# Build-time tools run on the build machine, so they are compiled by its own
# C++ compiler rather than the cross compiler.
find_program(KELVANE_HOST_CXX NAMES c++ g++ clang++ REQUIRED)
set(KELVANE_HOST_TOOLS ${CMAKE_BINARY_DIR}/host-tools)

# kelvane_host_tool(NAME SOURCE...): compiles the sources into
# ${KELVANE_HOST_TOOLS}/NAME.
function(kelvane_host_tool name)
  add_custom_command(
    OUTPUT ${KELVANE_HOST_TOOLS}/${name}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${KELVANE_HOST_TOOLS}
    COMMAND ${KELVANE_HOST_CXX} -std=c++20 -O1 -Wall -Wextra -I${CMAKE_SOURCE_DIR}
            -o ${KELVANE_HOST_TOOLS}/${name} ${ARGN}
    DEPENDS ${ARGN}
    COMMENT "Building the build-machine tool ${name}")
endfunction()

# Resources of the plug-in: the dialog picture and the version.
set(KELVANE_RC_DIR ${CMAKE_BINARY_DIR}/resources)
kelvane_host_tool(make_logo_bitmap ${CMAKE_SOURCE_DIR}/tools/make_logo_bitmap.cpp)
add_custom_command(
  OUTPUT ${KELVANE_RC_DIR}/logo.bmp
  COMMAND ${CMAKE_COMMAND} -E make_directory ${KELVANE_RC_DIR}
  COMMAND ${KELVANE_HOST_TOOLS}/make_logo_bitmap ${KELVANE_RC_DIR}/logo.bmp
  DEPENDS ${KELVANE_HOST_TOOLS}/make_logo_bitmap
  COMMENT "Drawing bitmap resource 102")
configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${KELVANE_RC_DIR}/version.rc @ONLY)

if(TARGET out_kelvane)
  include(${CMAKE_CURRENT_LIST_DIR}/windows-dll.cmake)
else()
  message(STATUS "No out_kelvane target yet: the DLL is not part of this build")
endif()

# A deferred call may not add a directory, so the tests under Wine are read
# into this one.
if(TARGET out_kelvane)
  include(${CMAKE_SOURCE_DIR}/tests/wine/wine-tests.cmake)
  include(${CMAKE_SOURCE_DIR}/tests/packaging/windows-package-tests.cmake)
endif()
