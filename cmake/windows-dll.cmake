# out_kelvane.dll: name, resources and link rules of the Windows plug-in.

# The host finds output plug-ins by the file name out_*.dll; no 'lib' prefix.
set_target_properties(out_kelvane PROPERTIES PREFIX "" SUFFIX ".dll")

# The one export is marked in the source; nothing else may leave the DLL,
# whatever the static runtime libraries would export on their own.
target_link_options(out_kelvane PRIVATE -Wl,--exclude-all-symbols)

# Resources: dialog 101, written from the control table; bitmap 102; version.
set(kelvane_resources ${KELVANE_RC_DIR}/version.rc)
set_source_files_properties(${KELVANE_RC_DIR}/version.rc PROPERTIES LANGUAGE RC)
target_sources(out_kelvane PRIVATE ${kelvane_resources})
