# out_kelvane.dll: name, resources and link rules of the Windows plug-in.

# The host finds output plug-ins by the file name out_*.dll; no 'lib' prefix.
set_target_properties(out_kelvane PROPERTIES PREFIX "" SUFFIX ".dll")

# The one export is marked in the source; nothing else may leave the DLL,
# whatever the static runtime libraries would export on their own.
target_link_options(out_kelvane PRIVATE -Wl,--exclude-all-symbols)

# Dialog 101 and bitmap 102, written at build time from the control table
# that the POSIX dialog is built from.
kelvane_host_tool(make_dialog_rc
  ${CMAKE_SOURCE_DIR}/tools/make_dialog_rc.cpp
  ${CMAKE_SOURCE_DIR}/settings/control_table.cpp)
add_custom_command(
  OUTPUT ${KELVANE_RC_DIR}/dialog.rc
  COMMAND ${KELVANE_HOST_TOOLS}/make_dialog_rc ${KELVANE_RC_DIR}/dialog.rc ${KELVANE_RC_DIR}/logo.bmp
  DEPENDS ${KELVANE_HOST_TOOLS}/make_dialog_rc ${KELVANE_RC_DIR}/logo.bmp
  COMMENT "Writing the resource script of dialog 101 from the control table")

set(kelvane_resources ${KELVANE_RC_DIR}/dialog.rc ${KELVANE_RC_DIR}/version.rc)
set_source_files_properties(${kelvane_resources} PROPERTIES LANGUAGE RC)
# The bitmap is read by the resource compiler, not named as a source.
set_source_files_properties(${KELVANE_RC_DIR}/dialog.rc PROPERTIES
  OBJECT_DEPENDS ${KELVANE_RC_DIR}/logo.bmp)
target_sources(out_kelvane PRIVATE ${kelvane_resources})
# The rules that write them belong to this directory, the plug-in target to
# another: a target of this directory runs them first.
add_custom_target(kelvane_resources DEPENDS ${KELVANE_RC_DIR}/dialog.rc ${KELVANE_RC_DIR}/logo.bmp)
add_dependencies(out_kelvane kelvane_resources)
